#include "tables.h"

pager_t pagers[MAX_PAGERS];
int num_pagers;
rule_t rules[MAX_RULES];
generation_t table_generation;

void spool_path(char (&path)[PATH_SIZE], const pager_t *pager, std::string_view name) noexcept {
    read_tables([&] { join_path(path, text_copy_t(pager->spool_dir).text, name); });
}
