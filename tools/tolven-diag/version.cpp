#include "version.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "output.h"
#include "tolven_diag.h"

#ifndef TOLVEN_DIAG_TOOL_VERSION
#define TOLVEN_DIAG_TOOL_VERSION "unknown"
#endif

namespace tolven_diag_tool {
namespace {

struct Library {
    uintptr_t address;  // of a symbol in it
    std::string path;
    std::string build_id;
};

std::string note_build_id(const char* p, const char* end) {
    while (p + sizeof(ElfW(Nhdr)) <= end) {
        const auto* note = reinterpret_cast<const ElfW(Nhdr)*>(p);
        const char* name = p + sizeof(ElfW(Nhdr));
        const char* desc = name + ((note->n_namesz + 3) & ~3u);
        if (desc + note->n_descsz > end) break;
        if (note->n_type == NT_GNU_BUILD_ID && note->n_namesz == 4 && memcmp(name, "GNU", 4) == 0) {
            std::string hex;
            for (unsigned b = 0; b < note->n_descsz; ++b) {
                char pair[3];
                snprintf(pair, sizeof pair, "%02x", static_cast<uint8_t>(desc[b]));
                hex += pair;
            }
            return hex;
        }
        p = desc + ((note->n_descsz + 3) & ~3u);
    }
    return "";
}

// Finds the loaded object whose segments hold |address|.
int find_library(dl_phdr_info* info, size_t, void* data) {
    auto* lib = static_cast<Library*>(data);
    bool holds = false;
    for (int i = 0; i < info->dlpi_phnum && !holds; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        uintptr_t start = info->dlpi_addr + ph.p_vaddr;
        holds = ph.p_type == PT_LOAD && lib->address >= start && lib->address < start + ph.p_memsz;
    }
    if (!holds) return 0;
    lib->path = info->dlpi_name != nullptr ? info->dlpi_name : "";
    for (int i = 0; i < info->dlpi_phnum && lib->build_id.empty(); ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_NOTE) continue;
        const char* p = reinterpret_cast<const char*>(info->dlpi_addr + ph.p_vaddr);
        lib->build_id = note_build_id(p, p + ph.p_memsz);
    }
    return 1;
}

// The file that holds |symbol|, with its build id; an empty path when it is not loaded.
Library library_of(const void* symbol) {
    Library lib{reinterpret_cast<uintptr_t>(symbol), "", ""};
    if (symbol == nullptr || dl_iterate_phdr(find_library, &lib) == 0) return {0, "", ""};
    if (lib.path.empty()) lib.path = "(unnamed)";
    return lib;
}

std::string library_text(const Library& lib) {
    if (lib.path.empty()) return "not loaded";
    return lib.path + (lib.build_id.empty() ? "" : ", build id " + lib.build_id);
}

Json::Value library_json(const Library& lib) {
    if (lib.path.empty()) return Json::Value();
    Json::Value j;
    j["path"] = lib.path;
    j["build_id"] = json_or_null(lib.build_id);
    return j;
}

}  // namespace

void print_version(FILE* out, bool json) {
    const Library diag =
            library_of(reinterpret_cast<const void*>(&tolven_diag_cmd_send_with_result));
    const Library libdiag = library_of(dlsym(RTLD_DEFAULT, "Diag_LSM_Init"));
    if (json) {
        Json::Value j;
        j["tool"] = "tolven-diag";
        j["version"] = TOLVEN_DIAG_TOOL_VERSION;
        j["libtolven_diag"] = library_json(diag);
        j["libdiag"] = library_json(libdiag);
        print_json_value(out, j);
        return;
    }
    fprintf(out, "tolven-diag %s\n", TOLVEN_DIAG_TOOL_VERSION);
    fprintf(out, "libtolven_diag: %s\n", library_text(diag).c_str());
    fprintf(out, "libdiag: %s\n", library_text(libdiag).c_str());
}

}  // namespace tolven_diag_tool
