#include "tables.h"

pager_t pagers[MAX_PAGERS];
int num_pagers;
rule_t rules[MAX_RULES];
generation_t table_generation;

void spool_path(char (&path)[PATH_SIZE], const pager_t *pager, std::string_view name) noexcept {
    join_path(path, table_text(pager->spool_dir).text, name);
}
