// A device with the service "echo": what a client sends goes back to all who subscribed.
#include <signal.h>

#include <iostream>
#include <lumora.hpp>

int main() try {
    // Blocked before the library makes threads, so that sigwait gets them. Standard input may be closed.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);

    lumora::Device device("echo-device");
    device.OnSubscribe([](const lumora::Subscription& begun) {
        std::cout << "client " << begun.client << " subscribed to " << begun.service << std::endl;
    });
    device.OnData([&](int, lumora::Bytes data) { device.Send("echo", data); });
    device.Offer("echo").Start();
    std::cout << "ready; Ctrl-C ends it" << std::endl;
    int number = 0;
    sigwait(&stop, &number);
} catch (const std::exception& problem) {
    std::cerr << problem.what() << '\n';
    return 1;
}
