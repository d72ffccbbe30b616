// A device that does the two things that most devices do: it streams what it measures while a client takes it
// (service "value"), and answers commands (service "answer").
//
// Handlers run on threads of Lumora, which must not send from there nor be held up: OnCommand puts the
// command into a queue. The device's own thread measures, answers and sends.
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <lumora.hpp>
#include <mutex>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Command {
    std::string name;
    std::string parameter;
};

class Sensor {
public:
    Sensor() {
        mDevice.OnCommand([this](std::string_view name, std::string_view parameter) {
            Post({std::string(name), std::string(parameter)});
        });
        mDevice.Offer("value").Offer("answer").Start();
        mThread = std::thread([this] { Run(); });
    }

    ~Sensor() {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mEnding = true;
        }
        mChanged.notify_one();
        mThread.join();
    }

    Sensor(const Sensor&) = delete;
    Sensor& operator=(const Sensor&) = delete;

private:
    void Post(Command command) {
        constexpr std::size_t MOST_WAITING = 16;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            if (mCommands.size() >= MOST_WAITING) {
                std::cerr << "too many commands wait: " << command.name << " is dropped" << std::endl;
                return;
            }
            mCommands.push_back(std::move(command));
        }
        mChanged.notify_one();
    }

    // Sends without the lock, so that OnCommand never waits for a slow client.
    void Run() {
        Clock::time_point measured = Clock::now();
        std::unique_lock<std::mutex> lock(mMutex);
        while (!mEnding) {
            if (!mCommands.empty()) {
                const Command command = std::move(mCommands.front());
                mCommands.pop_front();
                lock.unlock();
                Send("answer", Answer(command));
                lock.lock();
            } else if (Clock::now() >= measured + mInterval) {
                measured = Clock::now();
                lock.unlock();
                Measure(measured);
                lock.lock();
            } else {
                mChanged.wait_until(lock, measured + mInterval);
            }
        }
    }

    std::string Answer(const Command& command) {
        if (command.name != "interval") {
            return "unknown command " + command.name + "; there is interval";
        }
        const long wanted = std::strtol(command.parameter.c_str(), nullptr, 10);
        if (wanted < 10 || wanted > 60000) {
            return "interval takes 10 to 60000 ms";
        }
        mInterval = milliseconds(wanted);
        return "interval " + std::to_string(wanted) + " ms";
    }

    void Measure(Clock::time_point now) {
        if (!mDevice.Subscribers("value").empty()) {
            char text[32];
            const auto ms = std::chrono::duration_cast<milliseconds>(now.time_since_epoch()).count();
            std::snprintf(text, sizeof(text), "%.2f degrees", 21 + static_cast<double>(ms % 1000) / 1000);
            Send("value", text);
        }
    }

    // A block that no client takes any more is no reason to end.
    void Send(const char* service, const std::string& text) {
        std::error_code error;
        if (!mDevice.Send(service, text, error)) {
            std::cerr << '"' << text << "\" was not sent: " << error.message() << std::endl;
        }
    }

    milliseconds mInterval{1000};  // between two measurements; only the device's own thread uses it
    std::mutex mMutex;             // guards mCommands and mEnding
    std::condition_variable mChanged;
    std::deque<Command> mCommands;
    bool mEnding = false;
    lumora::Device mDevice{"sensor"};  // behind what its handlers use: they end with it
    std::thread mThread;
};

}  // namespace

int main() try {
    // Blocked before the library makes threads, so that sigwait gets them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);

    const Sensor sensor;
    std::cout << "ready; Ctrl-C ends it" << std::endl;
    int number = 0;
    sigwait(&stop, &number);
} catch (const std::exception& problem) {
    std::cerr << problem.what() << '\n';
    return 1;
}
