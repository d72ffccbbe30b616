// Plays every input of a folder through one fuzz target, in a program that needs no fuzzer. An input that
// does harm ends the program; the last line that it has written names the input.
//
//   fuzz_seeds_TARGET FOLDER
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/mutation.h"

namespace {

using Path = std::filesystem::path;

std::vector<Path> FilesIn(const Path& folder) {
    const std::filesystem::directory_iterator entries(folder);
    std::vector<Path> files(begin(entries), end(entries));
    std::sort(files.begin(), files.end());
    return files;
}

void Play(const Path& file) {
    std::printf("%s\n", file.filename().c_str());
    std::fflush(stdout);
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

// The targets' own mutators call it. Only a fuzzer calls those.
std::size_t LLVMFuzzerMutate(std::uint8_t*, std::size_t size, std::size_t) { return size; }

int main(int count, char** arguments) {
    if (count != 2) {
        std::fputs("usage: fuzz_seeds_TARGET FOLDER\n", stderr);
        return 2;
    }
    const std::vector<Path> files = FilesIn(arguments[1]);
    std::for_each(files.begin(), files.end(), Play);
    return files.empty() ? 1 : 0;
}
