// What the modules know of transports: one interface, its callbacks, and the factory.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "link/channel_security.h"
#include "lumora.h"

namespace lumoraAiModule {

// Which direction of a data channel is set up, and on which side. Sending connects, receiving listens.
enum class TransType { CLIENT_SEND = 1, SERVER_RECEIVE = 2, CLIENT_RECEIVE = 3, SERVER_SEND = 4 };

// Hears from a client transport, on its receive thread. Results are not used.
class LumoraTransCallback {
public:
    virtual ~LumoraTransCallback() = default;
    // One whole frame, head included, valid only during the call.
    virtual int OnRecvData(char* data, unsigned int length) = 0;
    // The peer closed the receiving connection, or it broke or timed out. handle is the one that the
    // transport was created with.
    virtual int OnDisconnect(unsigned int handle) = 0;
};

// A frame as it is written: head and payload, or the whole frame as the head and no payload.
struct FrameParts {
    const char* head = nullptr;
    unsigned int headLength = 0;
    const char* payload = nullptr;
    unsigned int payloadLength = 0;

    unsigned int Length() const { return headLength + payloadLength; }
};

// The application's callbacks, as a transport is handed them.
struct LUM_OBSERVER_S {
    LUM_COMMAND_CALLBACK OnCommand = nullptr;
    LUM_NOTIFY_CALLBACK OnEventNotify = nullptr;
    LUM_DATA_CALLBACK OnData = nullptr;
};

// What is handed over of the bytes that the peer sent before a stop.
enum class Rest {
    DROPPED,
    ARRIVED,  // what has arrived: the peer may go on sending without end
    ALL       // what is under way as well: the peer has said that it leaves
};

// A data channel. Operations return 0 or -1; here they only say that they cannot be called, and return 0.
class LumoraTransManager {
public:
    virtual ~LumoraTransManager() = default;
    // Sets up one direction; a type of the other side is ignored.
    virtual int CreateTransports(TransType type, const std::string& addr, int port, LUM_OBSERVER_S& observer);
    // Closes the sending direction and lets the receive thread end by itself; waits for nothing.
    virtual int DestoryTransports();
    virtual int StartTransports(TransType type);
    // Ends both directions. When it returns no callback runs any more, except the one that called it, if it
    // was called on the receive thread.
    virtual int StopTransports();
    virtual int GetTransStatus(LUM_TRANSPORT_STATUS_E& status);
    // Sends one frame. *written receives the number of bytes that went out; a server's transport that was
    // never connected leaves it alone. timeout is not used: half a second without progress ends a send.
    virtual int SendData(const void* data, unsigned int length, unsigned int* written, unsigned int timeout);
    // The same for a frame whose head and payload lie apart.
    virtual int SendFrame(const FrameParts& frame, unsigned int* written, unsigned int timeout);
    // Waits for its peer, or is connected with it.
    virtual bool IsRunning() const { return true; }

    // A channel is plain unless one of these is called before its first direction is set up. The client calls
    // AwaitKeys, and UseKeys when the device has answered; null means a plain channel. The device calls
    // UseKeys.
    virtual void AwaitKeys() {}
    virtual void UseKeys(std::shared_ptr<lumora::ChannelKeys>) {}
    // Waits until the receiving direction of a client's private channel has its peer. 0 or -1.
    virtual int WaitForPeer() { return 0; }

    // As StopTransports, but hands over the rest first. No longer than limit, and the callback in progress
    // then.
    virtual int StopAfterReceiving(Rest, std::chrono::milliseconds) { return StopTransports(); }
    // A stop that is in progress, or comes later, hands over no more. Waits for nothing.
    virtual void DropRest() {}
    // Waits until the peer's host has acknowledged what was sent. It gives up a peer that is gone, and any
    // peer after limit.
    virtual void WaitUntilTaken(std::chrono::milliseconds) {}
    // Waits until what has arrived from a peer that leaves has been handed over, or until limit. DropRest
    // ends it.
    virtual void WaitUntilRead(std::chrono::milliseconds) {}
};

// Makes transports by protocol. Has no state: any thread may use it.
class LumoraTransManagerFactory {
public:
    virtual ~LumoraTransManagerFactory() = default;

    // For the client side. Empty for a protocol that is not served.
    std::shared_ptr<LumoraTransManager> CreateTransportsManager(LUM_TRANSPORT_E protocol,
                                                                LumoraTransCallback& callback,
                                                                unsigned int handle);
    // For the server side. Empty for a protocol that is not served.
    std::shared_ptr<LumoraTransManager> CreateTransportsManager(LUM_TRANSPORT_E protocol);
    int DestoryTransportsManager() { return 0; }

    // Reads the protocol out of a setup string. 0 or -1.
    int ParseTransportsProtocol(const std::string& setupString, LUM_TRANSPORT_E& protocol);
};

// Empty when memory ran out, like the factory's transports.
std::shared_ptr<LumoraTransManagerFactory> CreateLumTransManagerFactory();

}  // namespace lumoraAiModule
