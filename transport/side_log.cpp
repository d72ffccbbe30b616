#include "transport/side_log.h"

#include "library/log.h"
#include "transport/operation_names.h"
#include "transport/socket.h"

namespace lumoraAiModule {

const char* ReceiveThreadName(Side side) {
    return side == Side::CLIENT ? "ClientReceiveThread" : "ServerReceiveThread";
}

void LogBindError(Side side, int error) {
    if (side == Side::CLIENT) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, SETUP_RECEIVER_SOCKET, "bind socket error: %s(errno: %d)\n",
                      ErrorText(error).c_str(), error);
        LUMORA_LOG_AS(lumora::LOG_ERROR, SETUP_RECEIVER_SOCKET, "will stop transport\n");
    } else {
        LUMORA_LOG_AS(lumora::LOG_ERROR, SETUP_RECEIVER_SOCKET,
                      "bind socket error: %s(errno: %d), will stop transport\n", ErrorText(error).c_str(),
                      error);
    }
}

void LogBound(Side side, in_port_t networkPort) {
    if (side == Side::CLIENT) {
        LUMORA_LOG_AS(lumora::LOG_DETAIL, SETUP_RECEIVER_SOCKET, "----bind sucess--will lissten--\n");
    } else {
        // The port is logged as it stands in the socket address.
        LUMORA_LOG_AS(lumora::LOG_STATE, SETUP_RECEIVER_SOCKET,
                      "After bind socket success, start to listen at port %d.\n",
                      static_cast<int>(networkPort));
    }
}

void LogListenError(Side side, int error) {
    if (side == Side::CLIENT) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, SETUP_RECEIVER_SOCKET, "listen socket error: %s(errno: %d)\n",
                      ErrorText(error).c_str(), error);
        LUMORA_LOG_AS(lumora::LOG_ERROR, SETUP_RECEIVER_SOCKET, "will stop transport\n");
    } else {
        LUMORA_LOG_AS(lumora::LOG_ERROR, SETUP_RECEIVER_SOCKET,
                      "listen socket error: %s(errno: %d), will stop transport\n", ErrorText(error).c_str(),
                      error);
    }
}

void LogWriteError(Side side, int error) {
    if (side == Side::CLIENT) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, SEND_DATA,
                      "write failed error: %s(errno: %d), will stop transport\n", ErrorText(error).c_str(),
                      error);
    } else {
        LUMORA_LOG_AS(lumora::LOG_ERROR, SEND_DATA, "write failed error: %s(errno: %d)\n",
                      ErrorText(error).c_str(), error);
        LUMORA_LOG_AS(lumora::LOG_ERROR, SEND_DATA, "SendData will stop transport\n");
    }
}

}  // namespace lumoraAiModule
