// lumora key: makes and changes the files of keys that LUMORA_LINK_PSK_FILE names.
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "tools/lumora/commands/key_lines.h"
#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/files.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/table.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

struct Options {
    std::string action;
    std::string file;
    std::string identity;
    std::string from;
    std::string expires;
};

const std::vector<std::string> ACTIONS = {"new", "show", "add", "use", "revoke"};

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
    throw Failure(EXIT_FILE, '"' + path + "\": " + what);
}

std::string NewKey() {
    unsigned char bytes[32];
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        throw Failure(EXIT_FAILED, "the kernel gives no random bytes: " + SystemError(errno));
    }
    std::string key;
    for (const unsigned char byte : bytes) {
        constexpr char DIGITS[] = "0123456789abcdef";
        key.push_back(DIGITS[byte >> 4]);
        key.push_back(DIGITS[byte & 15]);
    }
    return key;
}

// Only for its owner from the first moment on, and complete under its name. A file that is replaced keeps its
// owner: root may change the file of a device that runs as another user.
void WriteKeys(const std::string& path, const std::string& text, const struct stat* former) {
    const std::string beside = path + ".new";
    unlink(beside.c_str());
    const int fd = open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        Fail(beside, "cannot be written: " + SystemError(errno));
    }
    const bool owned =
        former == nullptr || former->st_uid == geteuid() || fchown(fd, former->st_uid, former->st_gid) == 0;
    std::size_t done = 0;
    while (owned && done < text.size()) {
        const ssize_t bytes = write(fd, text.data() + done, text.size() - done);
        if (bytes < 0 && errno != EINTR) {
            break;
        }
        done += bytes < 0 ? 0 : static_cast<std::size_t>(bytes);
    }
    bool written = owned && done == text.size() && fsync(fd) == 0;
    int error = errno;
    if (close(fd) != 0) {
        error = errno;
        written = false;
    }
    // Another process may have made the file meanwhile; link fails then, and rename would replace it.
    if (written && (former != nullptr ? rename(beside.c_str(), path.c_str())
                                      : link(beside.c_str(), path.c_str())) != 0) {
        error = errno;
        written = false;
    }
    if (!written || former == nullptr) {
        unlink(beside.c_str());
    }
    if (!written) {
        Fail(path, "cannot be written: " + SystemError(error));
    }
}

struct Loaded {
    KeyLines lines;
    struct stat state = {};
};

Loaded Load(const std::string& path) {
    Loaded loaded;
    if (stat(path.c_str(), &loaded.state) != 0) {
        Fail(path, "cannot be read: " + SystemError(errno));
    }
    if (!S_ISREG(loaded.state.st_mode)) {
        Fail(path, "is no file");
    }
    const std::string text = InputFile(path).Read(lumora_link::MAX_KEY_FILE_BYTES + 1);
    if (const auto fault = loaded.lines.Take(text)) {
        Fail(path, "line " + std::to_string(fault->line) + ' ' + fault->text);
    }
    return loaded;
}

void CheckIdentity(const std::string& identity) {
    const bool printable = std::all_of(identity.begin(), identity.end(),
                                       [](char byte) { return byte > ' ' && byte <= '~' && byte != ':'; });
    if (identity.empty() || identity.size() > lumora_link::MAX_PSK_PART_BYTES || !printable ||
        identity[0] == '#') {
        throw Failure(EXIT_USAGE,
                      "IDENTITY must be 1 to 64 printable characters without blanks and colons, and "
                      "not begin with #");
    }
}

std::string DayOf(std::time_t end) {
    const std::time_t last = end - 1;
    std::tm date = {};
    gmtime_r(&last, &date);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d", &date);
    return text;
}

std::string StateOf(const lumora_link::Psk& psk, bool own, std::time_t now) {
    if (!psk.IsValidAt(now)) {
        return "expired " + DayOf(*psk.expires);
    }
    return std::string(own ? "own" : "accepted") + (psk.expires ? " until " + DayOf(*psk.expires) : "");
}

int Show(const Options& options) {
    const Loaded loaded = Load(options.file);
    const std::time_t now = std::time(nullptr);
    std::vector<std::string> objects;
    Table table({"IDENTITY", "USE"});
    bool first = true;
    for (const lumora_link::Psk& psk : loaded.lines.Keys()) {
        const bool valid = psk.IsValidAt(now);
        const bool own = valid && first;
        first = first && !valid;
        JsonObject object;
        object.Add("identity", psk.identity).Add("own", own).Add("valid", valid);
        if (psk.expires) {
            object.Add("lastDay", DayOf(*psk.expires));
        }
        objects.push_back(object.Text());
        table.AddRow({OneLine(psk.identity), StateOf(psk, own, now)});
    }
    Print(IsJson() ? JsonArray(objects) + '\n' : table.Text());
    if ((loaded.state.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        Fail(options.file, "is open to others than its owner, so no node takes it; chmod 600 it");
    }
    return EXIT_OK;
}

std::string KeyFrom(const Options& options) {
    if (options.from.empty()) {
        return NewKey();
    }
    const Loaded other = Load(options.from);
    const lumora_link::Psk* psk = other.lines.Find(options.identity);
    if (psk == nullptr) {
        Fail(options.from, "has no key \"" + OneLine(options.identity) + '"');
    }
    return psk->key;
}

void CheckExpires(const Options& options) {
    if (!options.expires.empty() && !lumora_link::ParseLastDay(options.expires)) {
        throw Failure(EXIT_USAGE, "--expires takes a day as YYYY-MM-DD");
    }
}

int Make(const Options& options) {
    CheckIdentity(options.identity);
    CheckExpires(options);
    KeyLines lines;
    lines.Add(options.identity, KeyFrom(options), options.expires);
    WriteKeys(options.file, lines.Text(), nullptr);
    return EXIT_OK;
}

int Change(const Options& options) {
    CheckIdentity(options.identity);
    CheckExpires(options);
    Loaded loaded = Load(options.file);
    const bool known = loaded.lines.Find(options.identity) != nullptr;
    if (options.action == "add") {
        if (known) {
            Fail(options.file, "has a key \"" + options.identity + "\" already");
        }
        if (loaded.lines.Keys().size() >= lumora_link::MAX_KEYS) {
            Fail(options.file, "is full");
        }
        loaded.lines.Add(options.identity, KeyFrom(options), options.expires);
    } else if (!known) {
        Fail(options.file, "has no key \"" + options.identity + '"');
    } else if (options.action == "use") {
        loaded.lines.MoveToFront(options.identity);
    } else if (loaded.lines.Keys().size() == 1) {
        Fail(options.file,
             "would have no key left, and nodes go on with the keys of a file that has none; "
             "add another key first");
    } else {
        loaded.lines.Remove(options.identity);
    }
    WriteKeys(options.file, loaded.lines.Text(), &loaded.state);
    return EXIT_OK;
}

int Run(const Options& options) {
    if (std::find(ACTIONS.begin(), ACTIONS.end(), options.action) == ACTIONS.end()) {
        throw Failure(EXIT_USAGE, "ACTION is new, show, add, use or revoke");
    }
    const bool show = options.action == "show";
    if (show != options.identity.empty()) {
        throw Failure(EXIT_USAGE,
                      show ? "show takes a FILE only" : options.action + " takes FILE and IDENTITY");
    }
    if ((!options.from.empty() || !options.expires.empty()) && options.action != "new" &&
        options.action != "add") {
        throw Failure(EXIT_USAGE, "--from and --expires belong to new and add");
    }
    return show ? Show(options) : options.action == "new" ? Make(options) : Change(options);
}

}  // namespace

Command KeyCommand() {
    const auto options = std::make_shared<Options>();
    Command command("key", "makes and changes the file with a node's keys");
    command.Describe(
        "new makes a FILE with one new key. show lists the keys of a FILE, and never the secrets. add puts a "
        "key behind the others: nodes accept it. use makes a key the first: the node's own. revoke removes a "
        "key. Nodes that run read a changed file within a second.");
    command.Describe(
        "A node takes the file that LUMORA_LINK_PSK_FILE names. Files are written with mode 0600, and keep "
        "the "
        "owner that they had.");
    command.Argument("ACTION", options->action, "new, show, add, use or revoke").choices = ACTIONS;
    command.options.back().required = true;
    Option& file = command.Argument("FILE", options->file, "the file of keys");
    file.offer = Option::Offer::FILES;
    file.required = true;
    command.Argument("IDENTITY", options->identity, "the name of a key, for example that of a device");
    command
        .Text("--from", "OTHER", options->from,
              "of new and add: takes the key from this file; without it a random one of 32 bytes is made")
        .offer = Option::Offer::FILES;
    command.Text("--expires", "DAY", options->expires,
                 "of new and add: the last day on which the key is valid (UTC), as 2027-06-30");
    command.Prints({{"[].identity", "of show: the name of a key"},
                    {"[].own", "the node names and uses this one itself"},
                    {"[].valid", "false: it has expired"},
                    {"[].lastDay", "the last day on which it is valid, if it has one"}});
    command.Show("lumora key new camera-17.key camera-17", "a key for one device");
    command.Show("lumora key add client.key camera-17 --from camera-17.key", "lets a client use it");
    command.Show("lumora key revoke client.key camera-17", "ends that");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
