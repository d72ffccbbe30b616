// A device for tests: sends numbered blocks while a client is subscribed, and prints what it is sent.
//
//   hub_device TYPE SERVICE BYTES BLOCKS_A_SECOND
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <lumora.hpp>
#include <string>

int main(int count, char** words) {
    if (count != 5) {
        std::fputs("hub_device TYPE SERVICE BYTES BLOCKS_A_SECOND\n", stderr);
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    const std::string service = words[2];
    std::string block(std::strtoul(words[3], nullptr, 10), '.');
    const double rate = std::strtod(words[4], nullptr);
    lumora::Device device(words[1]);
    device.Offer(service);
    device.OnCommand([](std::string_view name, std::string_view parameter) {
        std::printf("command %s %s\n", std::string(name).c_str(), std::string(parameter).c_str());
    });
    device.OnData([](int, lumora::Bytes data) { std::printf("block %zu\n", data.size()); });
    device.OnSubscribe([](const lumora::Subscription&) { std::puts("subscribed"); });
    device.OnUnsubscribe([](const lumora::Subscription&) { std::puts("unsubscribed"); });
    device.Start();
    std::puts("ready");
    const timespec pause = {0, static_cast<long>(1e9 / rate)};
    unsigned long long sequence = 0;
    while (sigtimedwait(&end, nullptr, &pause) < 0) {
        if (device.Subscribers(service).empty()) {
            continue;
        }
        std::array<char, 32> number = {};
        const int length = std::snprintf(number.data(), number.size(), "%012llu ", sequence++);
        block.replace(0, static_cast<std::size_t>(length), number.data());
        std::error_code error;
        device.Send(service, block, error);
    }
    return 0;
}
