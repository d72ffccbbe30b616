// A device with the service "echo": what a client sends goes back to all who subscribed.
#include <iostream>
#include <lumora.hpp>

int main() try {
    lumora::Device device("echo-device");
    device.OnSubscribe([](const lumora::Subscription& begun) {
        std::cout << "client " << begun.client << " subscribed to " << begun.service << std::endl;
    });
    device.OnData([&](int, lumora::Bytes data) { device.Send("echo", data); });
    device.Offer("echo").Start();
    std::cout << "ready; Enter ends it" << std::endl;
    std::cin.get();
} catch (const std::exception& problem) {
    std::cerr << problem.what() << '\n';
    return 1;
}
