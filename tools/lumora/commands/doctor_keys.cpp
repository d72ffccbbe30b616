// lumora doctor: the file with the keys of this node.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "tools/lumora/commands/findings.h"
#include "tools/lumora/commands/key_lines.h"
#include "tools/lumora/os/files.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

using Level = Finding::Level;

const char KEYS[] = "keys";
constexpr std::size_t SHORT_KEY = 16;
constexpr std::time_t SOON = 30L * 24 * 60 * 60;

void LookAtKey(Findings& findings, const lumora_link::Psk& psk, std::time_t now) {
    const std::string name = "the key \"" + OneLine(psk.identity) + '"';
    if (!psk.IsValidAt(now)) {
        findings.push_back(
            {Level::WARNING, KEYS, name + " has expired; it is not used", "lumora key revoke removes it"});
        return;
    }
    if (psk.expires && *psk.expires - now < SOON) {
        findings.push_back({Level::WARNING, KEYS, name + " expires in less than 30 days",
                            "lumora key add makes another one, which all nodes of this key must get"});
    }
    if (psk.key.size() < SHORT_KEY) {
        findings.push_back({Level::WARNING, KEYS, name + " has less than 16 bytes and may be guessed",
                            "lumora key add makes one of 32 random bytes"});
    }
}

// A node reads the variable in the same way.
void LookAtChannelMode(Findings& findings, bool hasKey) {
    const char* text = std::getenv("LUMORA_LINK_CHANNEL");
    const std::string mode = text == nullptr || *text == '\0' ? "prefer" : text;
    const std::string variable = "LUMORA_LINK_CHANNEL=" + OneLine(mode);
    if (mode != "plain" && mode != "prefer" && mode != "require") {
        findings.push_back({Level::WARNING, KEYS,
                            variable + " is not plain, prefer or require; require is used",
                            "correct or unset it"});
    }
    const bool required = mode != "plain" && mode != "prefer";
    if (!hasKey && required) {
        findings.push_back(
            {Level::FAULT, KEYS, variable + " needs a key; no node starts", "lumora key new makes one"});
    } else if (hasKey && mode == "plain") {
        findings.push_back({Level::WARNING, KEYS,
                            variable + ": hosts on the way can read and change the data",
                            "unset it, if all devices and clients have this version"});
    } else if (hasKey) {
        findings.push_back({Level::GOOD, KEYS,
                            required ? "data channels are private"
                                     : "data channels are private where the other end can do it",
                            ""});
    }
}

void LookAtKeyFile(Findings& findings, const char* path) {
    if (path == nullptr) {
        findings.push_back({Level::NOTE, KEYS, "no key: every host on the network may ask and command",
                            "lumora key new makes one; docs/security.md tells what else there is to do"});
        return;
    }
    const std::string file = "LUMORA_LINK_PSK_FILE: \"" + OneLine(path) + '"';
    struct stat state = {};
    if (stat(path, &state) != 0 || !S_ISREG(state.st_mode) || access(path, R_OK) != 0) {
        findings.push_back({Level::FAULT, KEYS, file + " cannot be read; no node starts",
                            "correct the path or the owner; lumora key new makes such a file"});
        return;
    }
    if ((state.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        findings.push_back(
            {Level::FAULT, KEYS, file + " is open to others than its owner; no node starts", "chmod 600 it"});
    }
    KeyLines lines;
    try {
        const auto fault = lines.Take(InputFile(path).Read(lumora_link::MAX_KEY_FILE_BYTES + 1));
        if (fault) {
            findings.push_back(
                {Level::FAULT, KEYS,
                 file + ": line " + std::to_string(fault->line) + ' ' + fault->text + "; no node starts",
                 "lumora key show reads it as a node does"});
            return;
        }
    } catch (const Failure& failure) {
        findings.push_back({Level::FAULT, KEYS, failure.what(), ""});
        return;
    }
    const std::time_t now = std::time(nullptr);
    std::size_t valid = 0;
    for (const lumora_link::Psk& psk : lines.Keys()) {
        valid += psk.IsValidAt(now) ? 1U : 0U;
        LookAtKey(findings, psk, now);
    }
    if (valid == 0) {
        findings.push_back({Level::FAULT, KEYS, file + ": every key has expired; no node starts",
                            "lumora key add makes another one"});
    } else {
        findings.push_back(
            {Level::GOOD, KEYS, file + ": " + Count(valid, "key can be used", "keys can be used"), ""});
    }
}

}  // namespace

void LookAtKeys(Findings& findings) {
    const char* path = std::getenv("LUMORA_LINK_PSK_FILE");
    LookAtKeyFile(findings, path);
    const bool starts = std::none_of(findings.begin(), findings.end(),
                                     [](const Finding& one) { return one.level == Level::FAULT; });
    if (starts) {
        LookAtChannelMode(findings, path != nullptr);
    }
}

}  // namespace lumora_cli
