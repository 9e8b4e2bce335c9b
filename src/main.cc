#include "vesperd.h"

int main(int argc, char **argv) {
    vesperd_run(argc, argv);
}
