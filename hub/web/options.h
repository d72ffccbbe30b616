// How the web face is set up, and what it grants at most.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace lumora_hub::web {

struct WebLimits {
    std::size_t connections = 512;
    std::size_t connectionsOfAddress = 256;              // a browser with many tabs is one address
    std::size_t requestBytes = 5'242'880;                // of a body; the largest block that a device takes
    std::size_t commandBytes = 8192;                     // of a body with a command or a token
    std::size_t uploadingBytes = std::size_t{64} << 20;  // of all bodies that are being received
    std::size_t headBytes = 8192;                        // of the head of a request
    std::size_t pendingRequests = 64;                    // commands and blocks that wait for their device
    std::size_t streams = 400;                           // of blocks: consumers of the web face
    std::size_t newsStreams = 128;    // about the list of devices, all of which each may hold
    std::size_t streamBlocks = 4096;  // the queue of a stream, unless it asks for less
    std::size_t streamBytes = std::size_t{8} << 20;
    std::size_t latestServices = 32;  // services whose latest block is kept
    // One address may have this much of the bodies, requests, streams and services above.
    std::size_t uploadingBytesOfAddress = std::size_t{32} << 20;
    std::size_t pendingRequestsOfAddress = 48;
    std::size_t streamsOfAddress = 300;
    std::size_t newsStreamsOfAddress = 96;
    std::size_t latestServicesOfAddress = 24;
    std::chrono::milliseconds head{10'000};      // from accepting a connection to the end of the first head
    std::chrono::milliseconds idle{20'000};      // between two requests of a connection
    std::chrono::milliseconds body{60'000};      // for a whole body
    std::chrono::milliseconds outcome{75'000};   // for the device's answer to a command or a block
    std::chrono::milliseconds latest{10'000};    // for the first block of a service
    std::chrono::milliseconds reading{30'000};   // without progress while a reply is sent
    std::chrono::milliseconds stalled{600'000};  // without progress while a stream is sent
};

struct WebOptions {
    std::string address = "127.0.0.1";  // IPv4 or IPv6, of an interface; 0.0.0.0 and :: are all of them
    int port = 8666;                    // 0 takes a free one
    std::string token;                  // 16 characters or more; empty asks for none, on loopback only
    std::string certificateFile;        // PEM, with its chain; empty is plain HTTP
    std::string keyFile;                // PEM
    bool plainAllowed = false;          // plain HTTP on an address that is not loopback
    std::vector<std::string>
        hostNames;  // by which browsers reach the hub, beside addresses and this host's name
    WebLimits limits;
};

// True for the addresses that only this host can reach.
bool IsLoopback(const std::string& address);

// Why the options are refused, in a sentence for people. Empty if they are good.
std::string Refusal(const WebOptions& options);

// Splits ADDRESS:PORT, [ADDRESS]:PORT for IPv6. False, with the options unchanged, if the text is neither.
bool ReadListenAddress(const std::string& text, WebOptions& options);

}  // namespace lumora_hub::web
