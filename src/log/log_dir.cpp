// Not built yet.
#include "core/not_built.h"
#include "core/util.h"
#include "log/log.h"

int Log::create_log_directory() {
    NOT_BUILT();
    return -1;
}

int Log::create_directory(const char*) {
    NOT_BUILT();
    return -1;
}

int Log::check_fs_log_directory() {
    NOT_BUILT();
    return -1;
}

void Util::switch_group_log(char*) {
    NOT_BUILT();
}
