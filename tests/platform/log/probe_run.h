// Runs the probe and keeps what it wrote.
#pragma once

#include <map>
#include <string>
#include <vector>

// A folder that is gone with its owner.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string Path(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

using Variables = std::map<std::string, std::string>;

struct ProbeResult {
    int exitCode;  // 128 and the number when a signal ended it
    std::string out;
    std::vector<std::string> err;  // lines without their ends
};

std::string ReadFile(const std::string& path);
std::vector<std::string> Lines(const std::string& text);

// Standard error goes to the given descriptor, or is kept when there is none.
ProbeResult RunProbe(const std::vector<std::string>& arguments, const Variables& variables = {},
                     int standardError = -1);
