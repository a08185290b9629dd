// The command line: argv built from the input, split at NUL bytes.
#include <getopt.h>

#include "fuzz_support.h"

void fuzz_one(fuzz::Input in) {
    std::vector<std::string> args = {"rix"};
    args.reserve(64);  // argv points into the strings: they must not move
    std::vector<char*> argv = {args[0].data()};
    for (const char *p = reinterpret_cast<const char*>(in.data), *end = p + in.size;
         p < end && args.size() < 64; p += args.back().size() + 1) {
        argv.push_back(args.emplace_back(p, strnlen(p, end - p)).data());
    }
    argv.push_back(nullptr);
    opterr = 0;  // getopt's own diagnostics would only flood the output
    Container::reset();
    (void)Container::parseArgs(static_cast<int>(args.size()), argv.data());
    // Every path stays terminated inside its field, whatever was refused.
    auto terminated = [](const auto& f) {
        fuzz::expect(strnlen(f, sizeof(f)) < sizeof(f), "an argument field not terminated");
    };
    terminated(rix_args.boot_node), terminated(rix_args.dump_node);
    terminated(rix_args.partition_path), terminated(rix_args.nv_data_path);
    terminated(rix_args.nv_temp_path), terminated(rix_args.modem_name);
    Container::reset();
}
