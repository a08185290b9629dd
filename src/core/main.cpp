#include "core/daemon.h"

int main(int argc, char** argv) {
    return rix_main(argc, argv);
}
