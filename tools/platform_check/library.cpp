#include "tools/platform_check/library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>

#include "tools/lumora/terminal/failure.h"

namespace platform_check {

namespace {

using lumora_cli::EXIT_FILE;
using lumora_cli::Failure;

bool IsReadable(const std::string& file) { return access(file.c_str(), R_OK) == 0; }

void Require(const std::string& file) {
    if (!IsReadable(file)) {
        throw Failure(EXIT_FILE, file + " cannot be read: " + lumora_cli::SystemError(errno));
    }
}

// The loader looks for a name without a folder elsewhere.
std::string PathOf(const std::string& file) {
    return file.find('/') == std::string::npos ? "./" + file : file;
}

void Complete(std::string& file, const std::string& folder, const char* name) {
    if (!file.empty()) {
        file = PathOf(file);
        Require(file);
        // A file that the user did not name is checked if it is in the folder of the platform.
    } else if (IsReadable(folder + name)) {
        file = folder + name;
    }
}

template <typename Function>
bool Find(void* library, const char* name, Function& function, std::string& fault) {
    void* const address = dlsym(library, name);
    function = reinterpret_cast<Function>(address);
    if (address == nullptr) {
        fault += (fault.empty() ? "there is no " : ", no ") + std::string(name);
    }
    return address != nullptr;
}

}  // namespace

void FindFiles(Files& files) {
    files.platform = PathOf(files.platform);
    Require(files.platform);
    const std::string folder = files.platform.substr(0, files.platform.rfind('/') + 1);
    Complete(files.log, folder, "liblink_log.so");
    Complete(files.securec, folder, "libsecurec.so");
}

std::string LoadPlatform(const Files& files, PlatformFunctions& functions) {
    for (const std::string& file : {files.securec, files.log}) {
        if (!file.empty()) {
            // RTLD_GLOBAL: the platform finds the functions of these two when it is loaded. Never closed,
            // because their threads may run.
            dlopen(file.c_str(), RTLD_NOW | RTLD_GLOBAL);  // if that fails, loading the platform reports it
        }
    }
    // RTLD_NOW reports all missing functions here and not in the middle of a check.
    void* const library = dlopen(files.platform.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        return dlerror();
    }
    std::string fault;
    Find(library, "GetLinkPlatform", functions.get, fault);
    Find(library, "FreeLinkPlatform", functions.release, fault);
    Find(library, "GetNextAppResourceProxy", functions.next, fault);
    Find(library, "FreeAppResourceProxy2", functions.releaseProxy, fault);
    return fault;
}

void* LoadFunction(const std::string& file, const char* name, std::string& fault) {
    void* const library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    void* function = nullptr;
    if (library == nullptr) {
        fault = dlerror();
    } else {
        Find(library, name, function, fault);
    }
    return function;
}

}  // namespace platform_check
