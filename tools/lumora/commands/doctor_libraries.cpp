// lumora doctor: which files the program has become, once the loader has looked for its libraries.
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/lumora/commands/findings.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

using Level = Finding::Level;

struct Needed {
    const char* file;
    std::vector<const char*> functions;
};

// What each file must have. The last three may be a vendor's.
const std::vector<Needed>& NeededFiles() {
    static const std::vector<Needed> files = {
        {"liblumora_cpp.so", {"LUM_InitClient", "LUM_InitServer"}},
        {"liblumora.so",
         {"FreeAppResourceProxy2", "GetLinkPlatform", "FreeLinkPlatform", "GetNextAppResourceProxy"}},
        {"liblink_log.so", {"LogInfo"}},
        {"libsecurec.so", {"memcpy_s", "memset_s", "strncpy_s"}},
    };
    return files;
}

std::string RealPath(const char* path) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path, nullptr), std::free);
    return real != nullptr ? real.get() : path;
}

// The library that a function comes from, with its links followed; empty when none has the function. This
// program has some of them as well, and is passed over.
std::string FileOf(const char* function) {
    Dl_info info = {};
    void* address = dlsym(RTLD_NEXT, function);
    // RTLD_NEXT skips this program, which has functions of these names itself; see
    // nodes/platform_front.cpp. In a static build only the program has them.
    address = address != nullptr ? address : dlsym(RTLD_DEFAULT, function);
    return address != nullptr && dladdr(address, &info) != 0 ? RealPath(info.dli_fname) : "";
}

// Walks the notes of an ELF segment: a header, a name and a description each, both padded to 4 bytes. The
// linker stores a hash of the file as the description of type NT_GNU_BUILD_ID. Lengths are checked, because a
// note may be damaged.
std::string BuildIdIn(const char* notes, std::size_t length) {
    constexpr std::size_t ALIGNMENT = 4;
    constexpr std::size_t SHOWN = 6;
    const auto aligned = [](std::size_t size) { return (size + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT; };
    ElfW(Nhdr) head = {};
    for (std::size_t at = 0; at + sizeof(head) <= length;) {
        std::memcpy(&head, notes + at, sizeof(head));
        const std::size_t description = at + sizeof(head) + aligned(head.n_namesz);
        if (head.n_type == NT_GNU_BUILD_ID && description + head.n_descsz <= length) {
            return Hex({notes + description, std::min<std::size_t>(head.n_descsz, SHOWN)});
        }
        at = description + aligned(head.n_descsz);
    }
    return "";
}

// Real path to build ID, of all that is loaded.
std::map<std::string, std::string> LoadedFiles() {
    std::map<std::string, std::string> files;
    // The loader calls this for each loaded file. A result of 0 continues.
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* into) {
            std::string id;
            for (int i = 0; i < info->dlpi_phnum && id.empty(); ++i) {
                const ElfW(Phdr)& segment = info->dlpi_phdr[i];
                if (segment.p_type == PT_NOTE) {
                    // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader tells addresses as numbers
                    const auto* notes = reinterpret_cast<const char*>(info->dlpi_addr + segment.p_vaddr);
                    id = BuildIdIn(notes, segment.p_memsz);
                }
            }
            static_cast<std::map<std::string, std::string>*>(into)->emplace(RealPath(info->dlpi_name), id);
            return 0;
        },
        &files);
    return files;
}

std::string FolderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Adds one finding: where the file was found, or which function it lacks.
void LookAtFile(Findings& findings, const Needed& needed, const std::string& home,
                const std::map<std::string, std::string>& loaded) {
    const std::string path = FileOf(needed.functions.front());
    for (const char* function : needed.functions) {
        if (FileOf(function).empty()) {
            findings.push_back(
                {Level::FAULT, "libraries", std::string(function) + " is missing in " + needed.file,
                 "another " + std::string(needed.file) + " must come first on the library path"});
            return;
        }
    }
    const auto build = loaded.find(path);
    const bool known = build != loaded.end() && !build->second.empty();
    const bool elsewhere = FolderOf(path) != home;
    findings.push_back({Level::GOOD, "libraries",
                        std::string(needed.file) + ": " + path + (known ? ", build " + build->second : "") +
                            (elsewhere ? "; from another folder than liblumora_cpp.so: a vendor's?" : ""),
                        ""});
}

// Their files' names end in their versions.
void LookAtOthers(Findings& findings, const std::map<std::string, std::string>& loaded) {
    std::string names;
    for (const auto& [path, build] : loaded) {
        const std::string name = path.substr(path.rfind('/') + 1);
        for (const char* const beginning : {"libcoap", "libcjson", "libspdlog", "libfmt"}) {
            if (name.compare(0, std::strlen(beginning), beginning) == 0) {
                names += (names.empty() ? "" : ", ") + name;
            }
        }
    }
    if (!names.empty()) {
        findings.push_back({Level::GOOD, "libraries", "and " + names, ""});
    }
}

}  // namespace

void LookAtLibraries(Findings& findings) {
    const std::map<std::string, std::string> loaded = LoadedFiles();
    // A vendor's files usually stand in another folder than ours.
    const std::string home = FolderOf(FileOf("LUM_InitClient"));
    for (const Needed& needed : NeededFiles()) {
        LookAtFile(findings, needed, home, loaded);
    }
    LookAtOthers(findings, loaded);
}

}  // namespace lumora_cli
