// Not built yet.
#include "srinfo/srinfo.h"
#include "core/not_built.h"

int Srinfo::open_srinfo_file(const char*) {
    NOT_BUILT();
    return -1;
}

void SrinfoTarn::store_srinfo(int) {
    NOT_BUILT();
}

void SrinfoTarn::restore_srinfo(int) {
    NOT_BUILT();
}

srinfo_block* SrinfoTarn::alloc_srinfo(unsigned int* len, int) {
    NOT_BUILT();
    *len = 0;
    return nullptr;
}

int SrinfoTarn::write_srinfo_file(int, char*, unsigned int) {
    NOT_BUILT();
    return -1;
}
