// Finds an echo device, sends it a text and prints what comes back.
#include <future>
#include <iostream>
#include <lumora.hpp>

int main(int count, char** arguments) try {
    std::promise<std::string> answer;
    lumora::Client client("echo-client");
    client.OnData([&](std::string_view, lumora::Bytes data) { answer.set_value(std::string(data.Text())); });
    client.Connect("echo-device");
    client.Subscribe("echo");
    client.Send(count > 1 ? arguments[1] : "hello");
    std::future<std::string> echo = answer.get_future();
    if (echo.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        throw std::runtime_error("nothing comes back");
    }
    std::cout << "echo: " << echo.get() << '\n';
} catch (const std::exception& problem) {
    std::cerr << problem.what() << "; is an echo device running in this network?\n";
    return 1;
}
