#include "offline_log.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "library_model.h"
#include "output.h"
#include "tolven_diag.h"
#include "tolven_diag_platform.h"

namespace tolven_diag_tool {
namespace {

std::string dir_state(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return std::string("missing (") + strerror(errno) + ")";
    return S_ISDIR(st.st_mode) ? "exists" : "not a directory";
}

}  // namespace

int offline_log_dir(const Options& o, FILE* out) {
    Json::Value j;
    j["properties_set"] = Json::Value(Json::objectValue);
    for (const auto& [key, value] : o.props) {
        if (property_set(key.c_str(), value.c_str()) != 0) {
            error("cannot set property " + printable(key));
            return kExitFailed;
        }
        if (!o.json) fprintf(out, "property %s=%s\n", key.c_str(), value.c_str());
        j["properties_set"][key] = value;
    }
    char dir[kOfflineDirSize] = {};
    memcpy(dir, o.out_dir.data(), o.out_dir.size());
    const std::string before = dir;
    diag_mdlog_update_output_dir_for_offline_log_auto_start(o.offline_date.c_str(), dir,
                                                            kOfflineDirSize);
    dir[kOfflineDirSize - 1] = '\0';
    const bool changed = before != dir;
    j["output_dir"] = dir;
    j["changed"] = changed;
    j["failed"] = Json::Value(Json::arrayValue);
    j["directories"] = Json::Value();
    j["notes"] = Json::Value(Json::arrayValue);
    if (!o.json) {
        fprintf(out, "output dir: %s\n", dir[0] != '\0' ? dir : "(empty)");
        fprintf(out, "changed: %s\n", changed ? "yes" : "no");
    }

    std::vector<std::string> values;
    for (const OfflineLogProperty& p : kOfflineLogProperties) {
        char value[PROPERTY_VALUE_MAX] = {};
        property_get(p.key, value, p.fallback);
        values.push_back(value);
    }
    std::vector<std::string> failed = offline_log_failures(values);
    if (!failed.empty()) {
        for (const std::string& f : failed) j["failed"].append(f);
        if (o.json) {
            print_json_value(out, j);
            return kExitOk;
        }
        fprintf(out, "  the update acts only when all four property tests pass:\n");
        for (const std::string& f : failed) fprintf(out, "  failed: %s\n", f.c_str());
        return kExitOk;
    }
    // The library cuts the path silently; say so.
    const size_t full = strlen(kOfflineLogRoot) + o.offline_date.size();
    if (full > static_cast<size_t>(kOfflineDirSize - 1)) {
        std::string note = "the directory was cut to " + std::to_string(kOfflineDirSize - 1) +
                           " characters (the library's limit): " + kOfflineLogRoot + "DATE has " +
                           std::to_string(full);
        j["notes"].append(note);
        if (!o.json) fprintf(out, "note: %s\n", note.c_str());
    }

    // The library ignores mkdir failures; say what is there.
    bool all_there = true;
    j["directories"] = Json::Value(Json::objectValue);
    for (const std::string& path : {std::string(kOfflineLogRoot), std::string(dir)}) {
        std::string state = dir_state(path);
        all_there = all_there && state == "exists";
        j["directories"][path] = state;
        if (!o.json) fprintf(out, "  directory %s: %s\n", path.c_str(), state.c_str());
    }
    if (o.json) print_json_value(out, j);
    if (!all_there) {
        error("the update named the directory but could not create it (the library ignores mkdir "
              "failures)");
        return kExitFailed;
    }
    return kExitOk;
}

}  // namespace tolven_diag_tool
