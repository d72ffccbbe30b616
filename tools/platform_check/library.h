// The libraries that are looked at, loaded by their paths: this program is linked with none of them.
#pragma once

#include <link_platform.h>

#include <string>

namespace platform_check {

// The paths of the files. The latter two may be empty: those libraries are not checked.
struct Files {
    std::string platform;
    std::string log;
    std::string securec;
};

// Completes what was not named by what lies beside the platform's file. Throws a Failure for a file that is
// not there.
void FindFiles(Files& files);

// The functions of liblumora.so.
struct PlatformFunctions {
    decltype(&GetLinkPlatform) get = nullptr;
    decltype(&FreeLinkPlatform) release = nullptr;
    decltype(&GetNextAppResourceProxy) next = nullptr;
    decltype(&FreeAppResourceProxy2) releaseProxy = nullptr;
};

// Loads a file, and what it may need of the other two before. What is wrong, or nothing.
std::string LoadPlatform(const Files& files, PlatformFunctions& functions);

// A function that this file itself exports. Null, with the reason, if there is none.
void* LoadFunction(const std::string& file, const char* name, std::string& fault);

}  // namespace platform_check
