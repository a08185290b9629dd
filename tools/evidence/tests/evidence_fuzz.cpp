// The evidence reader over an arbitrary log directory: file names, dump logs,
// info files, kernel-log captures and silent-reset hex logs as a phone might
// leave them, cut or damaged. Input: CP-style messages in pairs, a file name
// and its content; a name that begins with byte 1 goes into err/.
#include <nlohmann/json.hpp>

#include "evidence.h"
#include "fuzz_support.h"

void fuzz_one(fuzz::Input in) {
    static const std::string dir = "/data/fuzz/evidence", err = dir + "/err";
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(err);
    const auto msgs = in.messages();
    for (size_t i = 0; i + 1 < msgs.size(); i += 2) {
        std::string name(reinterpret_cast<const char*>(msgs[i].data),
                         std::min(msgs[i].size, size_t{120}));
        const bool in_err = !name.empty() && name[0] == '\x01';
        name.erase(0, in_err ? 1 : 0);
        std::replace_if(
            name.begin(), name.end(), [](char c) { return c == '/' || !c; }, '_');
        name += name.empty() || name == "." || name == ".." || name == "err" ? "_" : "";
        fuzz::write_file((in_err ? err : dir) + "/" + name, msgs[i + 1].data, msgs[i + 1].size);
    }
    const evidence::Report r = evidence::read_report(dir);
    // Every text of the report must be printable: dump() throws on bytes that
    // are not UTF-8, and the fuzzer reports the uncaught exception.
    fuzz::expect(
        r.readable && !evidence::to_json(r).dump().empty() && !evidence::to_text(r).empty(),
        "a report of any directory");
}
