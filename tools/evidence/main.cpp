// evidence: what a log directory pulled from a phone holds of each modem
// crash, and whether that evidence is whole.
//
//   evidence [--json] DIR
//
// Exit status: 0 when every crash's evidence is complete, 1 when some crash
// is partial or has only failed attempts, 2 when DIR cannot be read or the
// command line is wrong.
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "evidence.h"

int main(int argc, char** argv) {
    bool json = false;
    const char* dir = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0) {
            json = true;
        } else if (argv[i][0] != '-' && dir == nullptr) {
            dir = argv[i];
        } else {
            dir = nullptr;
            break;
        }
    }
    if (dir == nullptr) {
        fprintf(stderr, "usage: evidence [--json] DIR   (DIR: /data/vendor/log/rix as pulled)\n");
        return 2;
    }
    const evidence::Report r = evidence::read_report(dir);
    if (!r.readable) {
        for (const std::string& p : r.problems) {
            fprintf(stderr, "evidence: %s\n", p.c_str());
        }
        if (!json) {
            return evidence::exit_status(r);
        }
    }
    const std::string out = json ? evidence::to_json(r).dump(2) + "\n" : evidence::to_text(r);
    fwrite(out.data(), 1, out.size(), stdout);
    return evidence::exit_status(r);
}
