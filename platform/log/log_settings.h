// What the environment says about the log.
#pragma once

#include <cstddef>
#include <string>

namespace lumora_log {

//  LUMORA_LOG_LEVEL       0 to 4: lines below this level are not written; 5 writes none. Default 2.
//  LUMORA_LOG_FILE        a file to write to instead of standard error; its folder is made when missing.
//  LUMORA_LOG_FILE_SIZE   bytes after which the file is put aside, 4096 to 2^30. Default 2^20.
//  LUMORA_LOG_FILE_COUNT  files kept, the current one included, 1 to 100. Default 3.
//  LUMORA_LOG_SYSLOG      1 writes to syslog instead of standard error; LUMORA_LOG_FILE goes first.
//  LUMORA_LOG_PATTERN     spdlog's pattern of a line; %n is the tag, %! the function, %# the line.
//  LUMORA_LOG_LIMIT       lines of levels 2 to 4 that one place in the code may write in a minute; 0: as many
//  as
//                         it likes. Default 30.
// A value that means nothing is named on standard error and its default taken. Programs that run with more
// rights than their caller has do not listen to the environment at all.
struct LogSettings {
    int threshold = 2;
    std::string file;
    size_t fileSize = 1U << 20;
    size_t fileCount = 3;
    bool useSyslog = false;
    unsigned limit = 30;
    std::string pattern;
};

LogSettings ReadLogSettings();

}  // namespace lumora_log
