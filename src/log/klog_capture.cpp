// Not built yet.
#include "core/not_built.h"
#include "core/util.h"
#include "log/log.h"

void Log::save_logs_thread(int, char*) {
    NOT_BUILT();
}

void Log::save_logs(int, char*) {
    NOT_BUILT();
}

void* Log::_save_logs(void*) {
    NOT_BUILT();
    return nullptr;
}
