// The command line: argv built from the input, split at NUL bytes.
#include <getopt.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/rix.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    // getopt's own diagnostics would only flood the fuzzer's output.
    opterr = 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> args = {"rix"};
    std::string cur;
    for (size_t i = 0; i < size && args.size() < 64; i++) {
        if (data[i] == '\0') {
            args.push_back(cur);
            cur.clear();
        } else {
            cur.push_back(static_cast<char>(data[i]));
        }
    }
    if (!cur.empty() && args.size() < 64) {
        args.push_back(cur);
    }
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);

    Container::reset();
    (void)Container::parseArgs(static_cast<int>(args.size()), argv.data());
    // Every path stays terminated inside its field, whatever was refused.
    const char* const fields[] = {rix_args.boot_node,      rix_args.dump_node,
                                  rix_args.partition_path, rix_args.nv_data_path,
                                  rix_args.nv_temp_path,   rix_args.modem_name};
    const size_t sizes[] = {sizeof(rix_args.boot_node),      sizeof(rix_args.dump_node),
                            sizeof(rix_args.partition_path), sizeof(rix_args.nv_data_path),
                            sizeof(rix_args.nv_temp_path),   sizeof(rix_args.modem_name)};
    for (size_t i = 0; i < sizeof(sizes) / sizeof(sizes[0]); i++) {
        if (strnlen(fields[i], sizes[i]) == sizes[i]) {
            abort();
        }
    }
    Container::reset();
    return 0;
}
