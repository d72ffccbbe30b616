// What the log calls the operations whose helpers log on their behalf.
#pragma once

namespace lumoraAiModule {

constexpr char CREATE_TRANSPORTS[] = "CreateTransports";
constexpr char SETUP_RECEIVER_SOCKET[] = "SetupReceiverSocket";
constexpr char SETUP_SENDER_SOCKET[] = "SetupSenderSocket";
constexpr char PARSE_AND_SEND_DATA[] = "ParseAndSendData";
constexpr char SEND_DATA[] = "SendData";
constexpr char STOP_TRANSPORTS[] = "StopTransports";

}  // namespace lumoraAiModule
