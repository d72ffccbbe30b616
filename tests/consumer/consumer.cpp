// Names every function: each has to be there to link, and to be found again when the program starts.
#include <lumora.h>

#include <array>
#include <cstdio>
#include <lumora.hpp>

namespace {

template <typename Function>
const void* AddressOf(Function* function) {
    return reinterpret_cast<const void*>(function);
}

}  // namespace

int main() {
    const std::array<const void*, 17> functions = {
        AddressOf(LUM_ConnectAiDevice),  AddressOf(LUM_CreateAiDevice),
        AddressOf(LUM_DeInitClient),     AddressOf(LUM_DeInitServer),
        AddressOf(LUM_DestoryAiDevice),  AddressOf(LUM_DisconnectAiDevice),
        AddressOf(LUM_GetAiDeviceList),  AddressOf(LUM_GetClientVersion),
        AddressOf(LUM_GetServerVersion), AddressOf(LUM_InitClient),
        AddressOf(LUM_InitServer),       AddressOf(LUM_RegisterAiDevInfo),
        AddressOf(LUM_RegisterEvent),    AddressOf(LUM_RegisterAiDeviceEvent),
        AddressOf(LUM_SendCmd),          AddressOf(LUM_SendData),
        AddressOf(LUM_SendDataToClient)};
    for (const void* function : functions) {
        std::printf("%p\n", function);
    }
    // No name has 40 characters: this joins no network.
    std::error_code error;
    const lumora::Client client(std::string(LUM_NAME_SIZE, 'n'), error);
    return error == lumora::Errc::BAD_NAME ? LUM_DeInitServer() : 1;
}
