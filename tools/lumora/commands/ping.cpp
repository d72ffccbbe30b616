// lumora ping: how long a block takes to a device's echo service and back.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

struct Options {
    SessionOptions session;
    std::string service = "echo";
    unsigned count = 5;
    unsigned size = 64;
    std::chrono::milliseconds interval{200};
    std::chrono::milliseconds timeout{2000};
};

using Times = std::vector<std::chrono::nanoseconds>;

// A block: the sender, the block's number, and filler bytes.
struct Mark {
    std::uint64_t sender;
    std::uint64_t number;
};

// size is at least the size of a mark: the option has that lower limit.
std::string BlockOf(const Mark& mark, unsigned size) {
    std::string block(size, 'p');
    std::memcpy(block.data(), &mark, sizeof(mark));
    return block;
}

// The time until the block came back whole; nothing when it did not. Late ones of before are passed over.
std::optional<std::chrono::nanoseconds> RoundTrip(ClientSession& session, const std::string& block,
                                                  std::chrono::milliseconds timeout) {
    // Sending is part of the time: the kernel may block while its buffer is full.
    const Deadline begin = Clock::now();
    session.Send(block);
    while (const std::optional<Block> answer = session.Take(begin + timeout)) {
        // An answer to an earlier block that timed out has another number and is ignored.
        if (answer->data == block) {
            return Clock::now() - begin;
        }
    }
    return std::nullopt;
}

void PrintRound(unsigned number, unsigned size, const std::optional<std::chrono::nanoseconds>& time) {
    if (IsJson()) {
        JsonObject line;
        line.Add("number", number).Add("bytes", size);
        line.AddRaw("milliseconds", time ? Milliseconds(*time) : "null");
        PrintLine(line.Text());
    } else {
        PrintLine(Grouped(size) + " bytes, number " + std::to_string(number) + ": " +
                  (time ? Milliseconds(*time) + " ms" : "no answer"));
    }
}

// The smallest time that the share of all times does not exceed (nearest rank). sorted is not empty.
std::chrono::nanoseconds Quantile(const Times& sorted, double share) {
    const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return sorted[std::max<std::size_t>(rank, 1) - 1];
}

void PrintStatistics(unsigned sent, Times times, const lumora::Peer& peer) {
    std::sort(times.begin(), times.end());
    const unsigned lost = sent - static_cast<unsigned>(times.size());
    std::vector<std::pair<const char*, std::string>> figures;
    if (!times.empty()) {
        const auto sum = std::accumulate(times.begin(), times.end(), std::chrono::nanoseconds(0));
        figures = {{"least", Milliseconds(times.front())},
                   {"mean", Milliseconds(sum / static_cast<long>(times.size()))},
                   {"median", Milliseconds(Quantile(times, 0.5))},
                   {"p99", Milliseconds(Quantile(times, 0.99))},
                   {"most", Milliseconds(times.back())}};
    }
    if (IsJson()) {
        JsonObject milliseconds;
        for (const auto& [name, figure] : figures) {
            milliseconds.AddRaw(name, figure);
        }
        PrintLine(JsonObject()
                      .Add("sent", sent)
                      .Add("lost", lost)
                      .AddRaw("milliseconds", milliseconds.Text())
                      .Add("private", peer.isPrivate)
                      .Add("peer", peer.identity)
                      .Text());
        return;
    }
    std::string line = std::to_string(sent) + " sent, " + std::to_string(lost) + " lost";
    for (const auto& [name, figure] : figures) {
        line += ", " + std::string(name) + ' ' + figure;
    }
    line += figures.empty() ? "" : " ms";
    PrintLine(line + (peer.isPrivate ? ", private with " + OneLine(peer.identity) : ""));
}

int Run(const Options& options) {
    CheckName("SERVICE", options.service);
    ClientSession session(options.session, {options.service});
    session.Subscribe(options.service);
    // A random sender number tells our blocks from those of another ping on the same device.
    std::random_device random;
    const std::uint64_t sender = random();
    Times times;
    unsigned sent = 0;
    while ((options.count == 0 || sent < options.count) && StopSignal() == 0) {
        if (sent > 0 && !PauseUnlessStopped(static_cast<int>(options.interval.count()))) {
            break;
        }
        const auto time = RoundTrip(session, BlockOf({sender, sent}, options.size), options.timeout);
        // A signal cut the wait short, so this block is neither answered nor lost.
        if (!time && StopSignal() != 0) {
            break;
        }
        ++sent;
        if (time) {
            times.push_back(*time);
        }
        PrintRound(sent, options.size, time);
    }
    PrintStatistics(sent, times, session.Peer());
    // Without a count the command is endless, and a signal is its normal end.
    if (options.count != 0) {
        ThrowWhenStopped();
    }
    if (times.empty() && StopSignal() == 0) {
        throw Failure(EXIT_TIMED_OUT, "nothing came back",
                      "does \"" + options.service + "\" send back what it gets? --service names another one");
    }
    return EXIT_OK;
}

}  // namespace

Command PingCommand() {
    const auto options = std::make_shared<Options>();
    Command command("ping", "measures the way to a device and back");
    command.Describe(
        "The device needs a service that sends back what it gets, as lumora serve --echo has one. The "
        "figures at the end are milliseconds; p99 is what 99 of 100 blocks did not exceed.");
    command.Describe(
        "A device serves one client process at a time: this one takes the place of another that is "
        "connected.");
    AddSessionOptions(command, options->session);
    Option& service =
        command.Text("--service", "SERVICE", options->service, "the service that sends back (echo)");
    service.letter = 's';
    service.offer = Option::Offer::SERVICES;
    command.Number("--count", "N", options->count, 0, 1000000000, "how many blocks; 0 is without end (5)")
        .letter = 'c';
    command
        .Size("--size", options->size, sizeof(Mark), LUM_MAX_SERVER_DATA_LENGTH,
              "bytes of a block: 1500, 64K, 0.5M (64)")
        .letter = 'b';
    command
        .Seconds("--interval", options->interval, std::chrono::hours(1), "the pause between two blocks (0.2)")
        .letter = 'i';
    command
        .Seconds("--timeout", options->timeout, std::chrono::hours(1),
                 "a block that is not back by then is lost (2)")
        .letter = 't';
    command.Prints({{"number", "of the block"},
                    {"bytes", "of the block"},
                    {"milliseconds", "there and back; null if the block was lost"},
                    {"sent", "on the last line: how many blocks"},
                    {"lost", "on the last line: how many of them did not come back"},
                    {"milliseconds.least", "on the last line, as those that follow; none if all were lost"},
                    {"milliseconds.mean", "the mean"},
                    {"milliseconds.median", "the median"},
                    {"milliseconds.p99", "what 99 of 100 blocks did not exceed"},
                    {"milliseconds.most", "the longest time"},
                    {"private", "on the last line: whether the data channel is private"},
                    {"peer", "on the last line: the name of the key by which it is private, or empty"}});
    command.Show("lumora ping echo-device --size 100K", "five blocks of 102,400 bytes");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
