// lumora-platform-check: whether a vendor's platform libraries do what Lumora needs of them.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tools/lumora/manual/manual.h"
#include "tools/lumora/os/interfaces.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"
#include "tools/platform_check/checks.h"

namespace platform_check {

namespace {

using namespace lumora_cli;  // NOLINT(google-build-using-namespace): its words are this program's

constexpr char NAME[] = "lumora-platform-check";

struct Options {
    Files files;
    std::string interfaces;
    bool thorough = false;
    bool json = false;
    unsigned limit = 60;
};

Options g_options;

Command OnlyCommand() {
    constexpr unsigned LONGEST_LIMIT = 3600;
    Command command(NAME, "checks whether platform libraries do what Lumora needs of them");
    command.Describe(
        "Loads a liblumora.so and drives it through its tables, as Lumora does: two devices in processes of "
        "their own, and a node that finds and asks them. Looks at liblink_log.so and libsecurec.so as well, "
        "if they are named or are in the same folder. Prints a line for each rule: that it holds, or what "
        "was "
        "expected and what was seen. A library that crashes or hangs is a deviation like others.");
    command.Describe(
        "Everything happens on one network interface, lo unless another is named. Our link platform uses no "
        "other. A vendor's may not know LUMORA_LINK_INTERFACE and use all: check it in a network namespace "
        "of "
        "its own (unshare -n).");
    command.Argument("LIBRARY", g_options.files.platform, "the file liblumora.so to check").required = true;
    command.Text("--log-library", "FILE", g_options.files.log,
                 "its liblink_log.so, if it is in another folder");
    command.Text("--securec-library", "FILE", g_options.files.securec,
                 "its libsecurec.so, if it is in another folder");
    command.Text("--interface", "NAME", g_options.interfaces,
                 "the network interface (lo). Sets LUMORA_LINK_INTERFACE");
    command.Flag(
        "--thorough", g_options.thorough,
        "also what takes its time, up to a minute: a handler that takes 6 seconds, and a device whose "
        "process is killed");
    command.Number("--limit", "SECONDS", g_options.limit, 1, LONGEST_LIMIT,
                   "after so many seconds without a result a library hangs (60)");
    command.Flag("--json", g_options.json, "one JSON document; the message of a failure too");
    command.Show("lumora-platform-check /opt/vendor/lib/liblumora.so", "and the two libraries beside it");
    command.Show("unshare -rn sh -c 'ip link set lo up; lumora-platform-check ./liblumora.so --thorough'",
                 "whatever the library does, nothing leaves this host");
    return command;
}

Manual TheManual() {
    return {OnlyCommand(),
            {},
            {{"0", "all that was looked at holds"},
             {"1", "something deviates"},
             {"2", "the command line means nothing, or names a network interface that is not there"},
             {"6", "a library that was named, or standard output, cannot be read or written"}},
            {{"LUMORA_LINK_INTERFACE", "the network interface; --interface sets it; without both, lo"},
             {"LUMORA_LOG_LEVEL", "what the libraries log; nothing if it is not set"},
             {"NO_COLOR", "not empty: no colours on a terminal either"}},
            {"lumora", "lumora-doctor"}};
}

const char* WordOf(Finding::Result result) {
    switch (result) {
        case Finding::Result::HOLDS:
            return "ok";
        case Finding::Result::DEVIATES:
            return "deviates";
        case Finding::Result::NOTE:
            break;
    }
    return "note";
}

Colour ColourOf(Finding::Result result) {
    return result == Finding::Result::HOLDS      ? Colour::GREEN
           : result == Finding::Result::DEVIATES ? Colour::RED
                                                 : Colour::BOLD;
}

// At least one blank, also after a text that is too long.
std::string Padded(const std::string& text, std::size_t width) {
    return text + std::string(text.size() < width ? width - text.size() : 1, ' ');
}

void PrintFinding(const Finding& finding) {
    constexpr std::size_t WORD = 10;
    constexpr std::size_t AREA = 9;
    const std::string word = WordOf(finding.result);
    const std::string margin(WORD + AREA, ' ');
    std::string text = Coloured(word, ColourOf(finding.result), STDOUT_FILENO) +
                       std::string(WORD - word.size(), ' ') + Padded(finding.area, AREA) + finding.rule +
                       '\n';
    if (finding.result == Finding::Result::DEVIATES) {
        text += margin + "expected: " + finding.expected + '\n' + margin + "seen:     " + finding.seen + '\n';
    }
    Print(text);
}

std::string ToJson(const Finding& finding) {
    JsonObject object;
    object.Add("result", WordOf(finding.result)).Add("area", finding.area).Add("rule", finding.rule);
    if (finding.result == Finding::Result::DEVIATES) {
        object.Add("expected", finding.expected).Add("seen", finding.seen);
    }
    return object.Text();
}

std::vector<Finding> Look(const Options& options) {
    std::vector<Finding> all;
    // Findings are printed as they come, because some checks take many seconds.
    const auto take = [&all](const Finding& finding) {
        if (!IsJson()) {
            PrintFinding(finding);
        }
        all.push_back(finding);
    };
    const Files& files = options.files;
    // Each library is loaded in a process of its own. A crash ends its checks only, and libraries cannot hide
    // each other's functions.
    RunApart(
        options.limit, [&](Report& report) { CheckPlatform(files, options.thorough, report); }, take);
    if (files.log.empty()) {
        take({Finding::Result::NOTE, "log", "there is no liblink_log.so beside it to look at"});
    } else {
        RunApart(
            options.limit, [&](Report& report) { CheckLog(files, report); }, take);
    }
    if (files.securec.empty()) {
        take({Finding::Result::NOTE, "securec", "there is no libsecurec.so beside it to look at"});
    } else {
        RunApart(
            options.limit, [&](Report& report) { CheckSecurec(files, report); }, take);
    }
    return all;
}

// The libraries read the environment when they start.
void Apply(Options& options) {
    if (options.json) {
        UseJson();
    }
    if (!options.interfaces.empty()) {
        CheckInterfaceNames(options.interfaces);
    }
    // Without --interface a value that the user has set stays.
    setenv("LUMORA_LINK_INTERFACE", options.interfaces.empty() ? "lo" : options.interfaces.c_str(),
           options.interfaces.empty() ? 0 : 1);
    setenv("LUMORA_LOG_LEVEL", "5", 0);
    FindFiles(options.files);
}

int Judge(const std::vector<Finding>& all) {
    const auto count = [&all](Finding::Result result) {
        return static_cast<std::size_t>(std::count_if(
            all.begin(), all.end(), [&](const Finding& finding) { return finding.result == result; }));
    };
    // Notes count neither way.
    const std::size_t held = count(Finding::Result::HOLDS);
    const std::size_t deviating = count(Finding::Result::DEVIATES);
    if (IsJson()) {
        PrintLine(JsonObject()
                      .Add("library", g_options.files.platform)
                      .Add("held", held)
                      .Add("deviating", deviating)
                      .AddRaw("findings", JsonArray(all, ToJson))
                      .Text());
    } else {
        PrintLine(Count(held, "rule holds", "rules hold") + ", " + Count(deviating, "deviates", "deviate") +
                  '.');
    }
    return deviating == 0 ? EXIT_OK : EXIT_FAILED;
}

// --print PAGE: what is kept with the sources.
int PrintPage(const Manual& manual, const std::string& page) {
    if (page != "man" && page != "markdown") {
        throw Failure(EXIT_USAGE, "--print takes man or markdown");
    }
    Print(page == "man" ? ManPage(manual, nullptr) : MarkdownPage(manual));
    return EXIT_OK;
}

int Run(int count, const char* const* words) {
    const Manual manual = TheManual();
    if (count > 1 && std::strcmp(words[1], "--print") == 0) {
        return PrintPage(manual, count > 2 ? words[2] : "");
    }
    const Choice choice = ParseCommandLine(manual, count, words);
    if (choice.page == Page::HELP) {
        Print(HelpPage(manual, nullptr, Width(STDOUT_FILENO)));
        return EXIT_OK;
    }
    if (choice.page == Page::VERSION) {
        PrintLine(std::string(NAME) + " " LUMORA_VERSION);
        return EXIT_OK;
    }
    Apply(g_options);
    return Judge(Look(g_options));
}

}  // namespace

}  // namespace platform_check

int main(int count, char** words) {
    lumora_cli::UseName(platform_check::NAME);
    return lumora_cli::RunToTheEnd([&] { return platform_check::Run(count, words); });
}
