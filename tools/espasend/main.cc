// espasend: plays the paging station at the other end of vesperd's line.

#include <cstdlib>

#include "delivery.h"

int main(int argc, char **argv) {
    deliver_all(parse_options(argc, argv));
    return EXIT_SUCCESS;
}
