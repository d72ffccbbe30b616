// The client module's connection to a device: data channel, commands, data both ways, versions.
#include <poll.h>

#include <climits>
#include <optional>
#include <utility>

#include "client/client_module.h"
#include "library/callback_scope.h"
#include "library/log.h"
#include "link/channel_security.h"
#include "protocol/control_documents.h"
#include "protocol/data_frame.h"
#include "protocol/setup_string.h"
#include "securec.h"

namespace lumoraAiModule {

using lumora::LinkDevice;
using lumora::MutexLock;

int g_mDataPort = 6666;

namespace {

// Keeps the questions whether the device is idle from becoming a busy loop.
constexpr int POLL_PAUSE_MS = 1;

// If not, the log says why on behalf of operation.
bool LeadsToDevice(const char* operation, unsigned int handle, const RemoteDevices::Resolved& resolved) {
    if (!resolved.isHandle) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, operation, "Handle error: %d, no such device!\n",
                      static_cast<int>(handle));
        return false;
    }
    if (resolved.device == nullptr) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, operation, "Handle error, no such handle!\n");
        return false;
    }
    return true;
}

// Looks in the device's reply for its answer to the offer. Drops the keys if it has none and the channel may
// be plain; false if there is no channel.
bool AgreeOnProtection(lumora::ChannelMode mode, const std::string& reply, LinkDevice& device,
                       std::shared_ptr<lumora::ChannelKeys>& keys) {
    constexpr char OPERATION[] = "SetupTransport";
    if (keys == nullptr) {
        return true;
    }
    const std::string answer = AnswerInReply(reply);
    if (!answer.empty()) {
        const bool isUnderstood = keys->Complete(answer, device.Address(), device.Port());
        if (!isUnderstood) {
            LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION,
                          "The device's answer to the offer of a private channel is not understood.\n");
        }
        return isUnderstood;
    }
    keys.reset();
    if (mode == lumora::ChannelMode::REQUIRE) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION,
                      "A private channel is required, and the device offers none.\n");
        return false;
    }
    LUMORA_LOG_AS(lumora::LOG_WARNING, OPERATION,
                  "The device offers no private channel; it gets a plain one.\n");
    return true;
}

}  // namespace

// After a failed announcement the stopped channel stays with its handle, as lumora.h says: connecting again
// succeeds, and sending fails.
int LumoraClientModule::ConnectAiDevice(int clientID, unsigned int handle) {
    LUMORA_TRACE("client [%d] Enter\n", clientID);
    const RemoteDevices::Resolved resolved = Resolve(handle);
    if (!resolved.isHandle) {
        LUMORA_DETAIL("Handle error, ConnectAiDevice failed!\n");
        return -1;
    }
    if (resolved.device == nullptr) {
        LUMORA_DETAIL("Handle error, No such device!\n");
        return -1;
    }
    const std::optional<unsigned int> connectedHandle = mClients.ConnectedHandle(clientID);
    if (!connectedHandle) {
        LUMORA_DETAIL("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    if (*connectedHandle == handle) {
        LUMORA_DETAIL("This client has connected handle: %d!\n", static_cast<int>(handle));
        return 0;
    }
    if (SetupTransport(handle) != 0) {
        LUMORA_DETAIL("SetupTransport failed!\n");
        return -1;
    }
    if (AnnounceClient(clientID, handle, resolved.device) != 0) {
        if (const std::shared_ptr<LumoraTransManager> transport = CurrentTransport()) {
            transport->StopTransports();
        }
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// SetConnectDevice comes before the request too: an event about a device that leaves during the request must
// not be dropped as one of a stranger.
int LumoraClientModule::AnnounceClient(int clientID, unsigned int handle,
                                       const std::shared_ptr<LinkDevice>& device) {
    constexpr char OPERATION[] = "ConnectAiDevice";
    if (!RecordConnection(clientID, handle, device)) {
        return -1;
    }
    std::string address = device->Address();
    mSmartHomeLink->SetConnectDevice(address, device->Port());
    std::string unused;
    if (device->Post(CONNECT_KEY, std::to_string(clientID), unused) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "Post command ERROR !\n");
        mClients.SetConnectedHandle(clientID, 0);
        return -1;
    }
    return 0;
}

// Comes before the request: the device may send data, or leave, as soon as it knows of the client. A device
// that has left already has no record that its removal could clear, and its handle will be given out again:
// the client would then count as connected to a device that it never asked.
bool LumoraClientModule::RecordConnection(int clientID, unsigned int handle,
                                          const std::shared_ptr<LinkDevice>& device) {
    constexpr char OPERATION[] = "ConnectAiDevice";
    const MutexLock lock(mMutex);
    if (!mDevices.Leads(handle, device)) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "Handle error: %d, no such device!\n",
                      static_cast<int>(handle));
        return false;
    }
    if (!mClients.SetConnectedHandle(clientID, handle)) {
        LUMORA_LOG_AS(lumora::LOG_DETAIL, OPERATION, "ClientID : %d no resource!!\n", clientID);
        return false;
    }
    return true;
}

// All channels of a process use the same two ports, so the former channel is stopped before a new one
// listens. Its entry in mTransportMap stays: sends on that handle fail from then on. mMutex is free while the
// former receive thread is joined:
//   this thread      would join the receive thread with mMutex held
//   receive thread   waits for mMutex in OnDisconnect
//   therefore        neither would go on
int LumoraClientModule::SetupTransport(unsigned int handle) {
    LUMORA_TRACE("Enter SetupTransport.\n");
    std::shared_ptr<LinkDevice> device;
    std::shared_ptr<LumoraTransManager> former;
    {
        const MutexLock lock(mMutex);
        RemoteDevices::Resolved resolved = mDevices.Resolve(handle);
        if (!resolved.isHandle) {
            LUMORA_ERROR("Handle error: %d, no such device!\n", static_cast<int>(handle));
            return -1;
        }
        if (mTransportMap.count(handle) != 0) {
            LUMORA_ERROR("This Handle has create transport.We will not create again\n");
            return 0;
        }
        if (resolved.device == nullptr) {
            LUMORA_ERROR("Handle error, no such handle!\n");
            return -1;
        }
        device = std::move(resolved.device);
        former = mTransManager;
    }
    if (former != nullptr) {
        // Joins the former receive thread, which may be waiting for mMutex.
        LUMORA_TRACE("client  Enter StopTransports.\n");
        former->StopTransports();
        LUMORA_TRACE("client  OUT StopTransports.\n");
    }
    const std::shared_ptr<LumoraTransManager> transport = NewTransport(handle);
    if (transport == nullptr || OpenDataChannel(*transport, *device) != 0) {
        return -1;
    }
    return KeepTransport(handle, transport, device);
}

// mOpeningHandle is set in the same step in which the transport becomes known. Otherwise a device that
// accepts and closes at once could be overlooked.
std::shared_ptr<LumoraTransManager> LumoraClientModule::NewTransport(unsigned int handle) {
    constexpr char OPERATION[] = "SetupTransport";
    const MutexLock lock(mMutex);
    if (!mDevices.HasHandle(handle)) {  // the device left while the former transport was stopped
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "Handle error: %d, no such device!\n",
                      static_cast<int>(handle));
        return nullptr;
    }
    mTransManager = mSources.newTransport(*mTransFactory, LUM_TRANSPORT_TCP, *this, handle);
    if (mTransManager == nullptr) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "CreateTransportsManager failed!\n");
        return nullptr;
    }
    mOpeningHandle = handle;
    mLostWhileOpening = false;
    return mTransManager;
}

// Our receiving half comes first: the device connects to it while it handles the setup request, and gives up
// if nothing listens. If a later step fails, the device has a channel whose client is missing; the request at
// the end tells it so, and its result is not used.
int LumoraClientModule::OpenDataChannel(LumoraTransManager& transport, LinkDevice& device) {
    constexpr char OPERATION[] = "SetupTransport";
    const lumora::ChannelMode mode = lumora::CurrentChannelMode();
    std::string offer;
    std::shared_ptr<lumora::ChannelKeys> keys;
    if (mode != lumora::ChannelMode::PLAIN) {
        keys = lumora::ChannelKeys::Offer(offer);
        if (keys == nullptr) {
            LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "No private channel can be offered.\n");
            return -1;
        }
        transport.AwaitKeys();
    }
    LUM_OBSERVER_S observer;  // all null: we receive through OnRecvData
    const std::string address = device.Address();
    if (transport.CreateTransports(TransType::CLIENT_RECEIVE, address, g_mDataPort + 1, observer) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "Create recv Transports failed!\n");
        return -1;
    }
    lumora::LumoraTransportConfig config;
    config.SetEndpoint(address, g_mDataPort);
    config.SetOffer(std::move(offer));
    std::string reply;
    if (device.SetupMediaService(config.GetSetupString(), reply) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "SetupMediaService failed\n");
        DropTransport();
        return -1;
    }
    if (!AgreeOnProtection(mode, reply, device, keys) || OpenOwnHalf(transport, address, keys) != 0) {
        DropTransport();
        std::string unused;
        device.Put(STOP_TRANSPORT_KEY, "", unused);  // the device drops its half
        return -1;
    }
    return 0;
}

// The sending half comes last, because the device listens only after it was asked to. A private channel
// counts as open only when both of its connections have proven their keys.
int LumoraClientModule::OpenOwnHalf(LumoraTransManager& transport, const std::string& address,
                                    const std::shared_ptr<lumora::ChannelKeys>& keys) {
    transport.UseKeys(keys);
    LUM_OBSERVER_S observer;
    if (transport.CreateTransports(TransType::CLIENT_SEND, address, g_mDataPort, observer) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, "SetupTransport", "Create send Transports failed!\n");
        return -1;
    }
    if (keys == nullptr) {
        return 0;
    }
    if (transport.WaitForPeer() != 0) {
        return -1;
    }
    LUMORA_LOG_AS(lumora::LOG_STATE, "SetupTransport", "The data channel is private.\n");
    return 0;
}

// The device may have left, or closed the channel again, while mMutex was free:
//   receive thread   OnDisconnect finds no entry of the handle and only sets mLostWhileOpening
//   this thread      without the look at it would keep a channel that has ended
//   therefore        every send would fail, and OnDisconnect never comes again
int LumoraClientModule::KeepTransport(unsigned int handle,
                                      const std::shared_ptr<LumoraTransManager>& transport,
                                      const std::shared_ptr<LinkDevice>& device) {
    constexpr char OPERATION[] = "SetupTransport";
    {
        const MutexLock lock(mMutex);
        mOpeningHandle = 0;
        const bool isThere = mDevices.Leads(handle, device);
        if (isThere && !mLostWhileOpening) {
            mTransportMap[handle] = transport;
            return 0;
        }
        if (isThere) {
            LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION,
                          "the device closed the channel while it was opened.\n");
        } else {
            LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "Handle error: %d, no such device!\n",
                          static_cast<int>(handle));
        }
    }
    DropTransport();
    return -1;
}

// mOpeningHandle is cleared before the stop: an OnDisconnect that is late belongs to no opening any more.
void LumoraClientModule::DropTransport() {
    std::shared_ptr<LumoraTransManager> transport;
    {
        const MutexLock lock(mMutex);
        transport.swap(mTransManager);
        mOpeningHandle = 0;
    }
    // Joins the receive thread, which may be waiting for mMutex.
    transport->StopTransports();
}

std::shared_ptr<LumoraTransManager> LumoraClientModule::CurrentTransport() {
    const MutexLock lock(mMutex);
    return mTransManager;
}

// The device is not told, and the channel stays open: other clients of this process may use it, and a client
// that connects again does so without waiting.
int LumoraClientModule::DisconnectAiDevice(int clientID, unsigned int handle) {
    LUMORA_TRACE("client [%d] Enter\n", clientID);
    LUMORA_DETAIL("DisconnectAiDevice handle = %d !\n", static_cast<int>(handle));
    const MutexLock lock(mMutex);
    if (!mDevices.HasHandle(handle)) {
        LUMORA_ERROR("Handle error: %d, no such device!\n", static_cast<int>(handle));
        return -1;
    }
    const std::optional<unsigned int> connectedHandle = mClients.ConnectedHandle(clientID);
    if (!connectedHandle) {
        LUMORA_ERROR("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    if (*connectedHandle == 0) {
        LUMORA_ERROR("This client connect no handle!\n");
        return -1;
    }
    mClients.SetConnectedHandle(clientID, 0);
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraClientModule::DestoryTransport(unsigned int handle) {
    LUMORA_TRACE("Enter\n");
    std::shared_ptr<LinkDevice> device;
    {
        const MutexLock lock(mMutex);
        const auto transport = mTransportMap.find(handle);
        if (transport == mTransportMap.end()) {
            LUMORA_ERROR("This Handle no transport.\n");
            return -1;
        }
        if (transport->second->DestoryTransports() != 0) {
            LUMORA_ERROR("DestoryTransports!\n");
            return -1;
        }
        RemoteDevices::Resolved resolved = mDevices.Resolve(handle);
        if (!LeadsToDevice(__func__, handle, resolved)) {
            return -1;
        }
        device = std::move(resolved.device);
    }
    LUMORA_DETAIL("LumoraClientModule will DestoryTransport\n");
    if (WaitUntilFree(*device) != 0) {
        return -1;
    }
    std::string unused;
    if (device->Put(STOP_TRANSPORT_KEY, "", unused) != 0) {
        LUMORA_DETAIL("Put cmd fail!\n");
        return -1;
    }
    const MutexLock lock(mMutex);
    mTransportMap.erase(handle);
    LUMORA_TRACE("Out\n");
    return 0;
}

// Without a limit: the device decides when its transport is idle. It ends when a request fails. No exported
// function leads here.
int LumoraClientModule::WaitUntilFree(LinkDevice& device) {
    constexpr char OPERATION[] = "DestoryTransport";
    while (true) {
        std::string reply;
        if (device.Get(TRANS_STATUS_KEY, "", reply) != 0) {
            LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "Get cmd fail\n");
            return -1;
        }
        if (reply == TRANSPORT_FREE_REPLY) {
            return 0;
        }
        LUMORA_LOG_AS(lumora::LOG_DETAIL, OPERATION, "Remote transport is busy, wait...\n");
        poll(nullptr, 0, POLL_PAUSE_MS);
    }
}

int LumoraClientModule::RegisterAiDeviceEvent(int clientID, unsigned int handle,
                                              LUM_DEVICE_EVENT_CALLBACK callback) {
    LUMORA_TRACE("client [%d] Enter\n", clientID);
    if (callback == nullptr) {
        LUMORA_ERROR("callback is null!\n");
        return -1;
    }
    if (!mClients.Has(clientID)) {
        LUMORA_ERROR("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    const MutexLock lock(mMutex);
    if (!mDevices.HasHandle(handle)) {
        LUMORA_ERROR("No such Handle, RegisterAiDeviceEvent failed!\n");
        return -1;
    }
    mClients.AddDeviceCallback(clientID, callback);
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraClientModule::SendCmd(int clientID, unsigned int handle, const char* cmd, const char* param) {
    LUMORA_TRACE("client [%d] Enter\n", clientID);
    if (cmd == nullptr) {
        LUMORA_ERROR("cmd is null!\n");
        return -1;
    }
    if (param == nullptr) {
        LUMORA_ERROR("param is nullptr!\n");
        return -1;
    }
    const RemoteDevices::Resolved resolved = Resolve(handle);
    if (resolved.device == nullptr) {
        LUMORA_ERROR("Handle error: %d, no such device!\n", static_cast<int>(handle));
        return -1;
    }
    if (!IsClientInstance(clientID)) {
        LUMORA_ERROR("No such ClientID : %d!!\n", clientID);
        return -1;
    }
    const std::optional<unsigned int> connectedHandle = mClients.ConnectedHandle(clientID);
    if (!connectedHandle) {
        LUMORA_ERROR("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    if (*connectedHandle != handle) {
        LUMORA_ERROR("This client did't connect on handle: %d!\n", static_cast<int>(handle));
        return -1;
    }
    std::string document;
    const int built = GetJsonCmd(clientID, cmd, param, document);
    if (built != 0) {
        LUMORA_ERROR("GetJsonCmd failed!\n");
        return built;
    }
    std::string unused;
    const int ret = resolved.device->Post(COMMAND_KEY, document, unused);
    if (ret != 0) {
        LUMORA_ERROR("Post command ERROR ! ret = 0x%x\n", static_cast<unsigned int>(ret));
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraClientModule::SendData(int clientID, unsigned int handle, SendDataInfo& info,
                                 unsigned int& sendLength) {
    LUMORA_TRACE("client [%d] Enter\n", clientID);
    if (info.data == nullptr) {
        LUMORA_ERROR("buffer is nullptr!\n");
        return -1;
    }
    SendPath path = FindSendPath(handle);
    if (!path.isHandle) {
        LUMORA_ERROR("Error: %d,no such device!\n", static_cast<int>(handle));
        return -1;
    }
    if (!path.hasDevice) {
        LUMORA_ERROR("Error:%d, no such Handle!\n", static_cast<int>(handle));
        return -1;
    }
    if (!IsClientInstance(clientID)) {
        LUMORA_ERROR("No such ClientID : %d!!\n", clientID);
        return -1;
    }
    sendLength = 0;  // a call that was refused before has left it alone
    FrameBuffer frame;
    if (BuildClientFrame(clientID, info, frame) != 0) {
        return -1;
    }
    if (path.transport == nullptr) {
        LUMORA_ERROR("This Handle has no transport.\n");
        return -1;
    }
    // The write may wait for the device, so no lock of the module is held: frames go on being delivered.
    const int ret = path.transport->SendFrame(ClientFrameParts(frame, info), &sendLength, info.timeoutMs);
    if (ret != 0) {
        LUMORA_ERROR("SendData failed!\n");
        sendLength = 0;
        LUMORA_TRACE("ERROR Out\n");
        return -1;
    }
    sendLength = PayloadWritten(sendLength, CLIENT_FRAME_HEAD_LENGTH);
    LUMORA_TRACE("Out\n");
    return 0;
}

LumoraClientModule::SendPath LumoraClientModule::FindSendPath(unsigned int handle) {
    const MutexLock lock(mMutex);
    SendPath path;
    path.isHandle = mDevices.HasHandle(handle);
    path.hasDevice = mDevices.HasDevice(handle);
    const auto transport = mTransportMap.find(handle);
    if (transport != mTransportMap.end()) {
        path.transport = transport->second;
    }
    return path;
}

// Large payloads are not copied, and the frame then holds the head alone. Without memory nothing has been
// sent, and the channel is as it was.
int LumoraClientModule::BuildClientFrame(int clientID, const SendDataInfo& info, FrameBuffer& frame) {
    constexpr char OPERATION[] = "SendData";
    const bool isWhole = !IsSentApart(info.length);
    if (info.length > UINT_MAX - CLIENT_FRAME_HEAD_LENGTH ||
        !frame.Allocate(CLIENT_FRAME_HEAD_LENGTH + (isWhole ? info.length : 0))) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "dataBuff memory malloc error\n");
        return -1;
    }
    // Only the head: the payload is about to be overwritten.
    if (memset_s(frame.Bytes(), CLIENT_FRAME_HEAD_LENGTH, 0, CLIENT_FRAME_HEAD_LENGTH) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "memset_s failed\n");
        return -1;
    }
    WriteClientFrameHead(frame.Bytes(), info.length, clientID);
    // memcpy_s fails for a destination size of 0, even when copying 0 bytes.
    if (isWhole && info.length != 0 &&
        memcpy_s(frame.Bytes() + CLIENT_FRAME_HEAD_LENGTH, info.length, info.data, info.length) != 0) {
        LUMORA_LOG_AS(lumora::LOG_DETAIL, OPERATION, "memcpy_s failed\n");
        return -1;
    }
    LUMORA_LOG_AS(lumora::LOG_DETAIL, OPERATION, "headLen = %d, payloadLen = %d\n",
                  static_cast<int>(HeadLengthOf(frame.Bytes())),
                  static_cast<int>(PayloadLengthOf(frame.Bytes())));
    return 0;
}

FrameParts LumoraClientModule::ClientFrameParts(const FrameBuffer& frame, const SendDataInfo& info) {
    FrameParts parts;
    parts.head = frame.Bytes();
    parts.headLength = CLIENT_FRAME_HEAD_LENGTH;
    if (IsSentApart(info.length)) {
        parts.payload = static_cast<const char*>(info.data);
        parts.payloadLength = info.length;
    } else {
        parts.headLength += info.length;
    }
    return parts;
}

// The device may send anything, so every field is checked before it is used. A frame that is refused is
// dropped alone: the stream goes on behind it, as its lengths say. mDeliveryMutex is taken before the
// recipients are looked up:
//   this thread     looks up the callback of client 3
//   application     ends client 3 and unloads the code of its callback
//   therefore       without the lock a function that is gone would be called
int LumoraClientModule::OnRecvData(char* frame, unsigned int length) {
    LUMORA_TRACE("Enter\n");
    if (frame == nullptr || length == 0) {
        LUMORA_ERROR("input param is invalid!\n");
        return -1;
    }
    ServerFrame fields;
    switch (ReadServerFrame(frame, length, fields)) {
        case FrameDamage::TOO_SHORT:
            LUMORA_ERROR("data length is too short!\n");
            return -1;
        case FrameDamage::PAYLOAD_LENGTH:
            LUMORA_ERROR("payloadLen= %d,illegal.\n", static_cast<int>(fields.payloadLen));
            return -1;
        case FrameDamage::CLIENT_COUNT:
            LUMORA_ERROR("clientNum:%d exceed the max value!\n", static_cast<int>(fields.clientNum));
            return -1;
        case FrameDamage::NAME_LENGTH:
            LUMORA_ERROR("NameLen exceed the max value!\n");
            return -1;
        case FrameDamage::PAYLOAD_MISSING:
            LUMORA_ERROR("payloadLen = %d reaches beyond the frame.\n", static_cast<int>(fields.payloadLen));
            return -1;
        case FrameDamage::NONE:
            break;
    }
    LUMORA_DETAIL("payloadLen = %d , clientNum = %d , serviceNameLen = %d\n",
                  static_cast<int>(fields.payloadLen), static_cast<int>(fields.clientNum),
                  static_cast<int>(fields.nameLen));
    const MutexLock delivery(mDeliveryMutex);
    const Recipients recipients = mClients.RecipientsOf(fields);
    for (unsigned int i = 0; i < recipients.count; ++i) {
        if (Deliver(recipients.entries[i], fields) != 0) {
            return -1;
        }
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// A recipient without a callback ends the delivery of this frame, also for those behind it: lumora.h asks
// clients to register before they subscribe.
int LumoraClientModule::Deliver(const Recipient& recipient, const ServerFrame& frame) {
    constexpr char OPERATION[] = "OnRecvData";
    if (recipient.callback == nullptr) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "ClientID : %d has no Register Event Callback!!\n",
                      recipient.clientID);
        return -1;
    }
    if (!recipient.handle) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "ClientID : %d no resource!!\n", recipient.clientID);
        return -1;
    }
    LUM_DEVICE_EVENT_S event = {};
    event.clientID = recipient.clientID;
    event.handle = *recipient.handle;
    if (strncpy_s(event.serviceName, sizeof(event.serviceName), frame.name, frame.nameLen) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION, "strncpy_s failed\n");
        return -1;
    }
    event.eventType = LUM_DEVICE_EVENT_DATA;
    event.result = 0;
    event.dataLen = frame.payloadLen;
    event.data = frame.payload;
    const lumora::CallbackScope scope(lumora::Side::CLIENT);
    recipient.callback(event);
    return 0;
}

// Runs on the receive thread and takes mMutex, so no thread may join that one with mMutex held. The
// application gets no event: it learns of the end by the next call that needs the device. Erasing the entry
// may drop the module's last reference to the transport that is calling here; its receive thread holds
// another.
int LumoraClientModule::OnDisconnect(unsigned int handle) {
    LUMORA_TRACE("handle [%d] Enter\n", static_cast<int>(handle));
    RemoteDevices::Resolved resolved;  // released without the lock: freeing a device calls the platform
    const MutexLock lock(mMutex);
    resolved = mDevices.Resolve(handle);
    if (!resolved.isHandle) {
        LUMORA_ERROR("Handle error: %d, no such device type!\n", static_cast<int>(handle));
        return -1;
    }
    if (resolved.device == nullptr) {
        LUMORA_ERROR("Handle error: %d, no such device!\n", static_cast<int>(handle));
        return -1;
    }
    mClients.DisconnectAll(handle);
    if (handle == mOpeningHandle) {
        mLostWhileOpening = true;
    }
    if (mTransportMap.erase(handle) == 0) {
        LUMORA_ERROR("This Handle no transport.\n");
        return 0;
    }
    mDevices.Forget(handle);  // it has to be searched for again
    LUMORA_TRACE("OUT\n");
    return 0;
}

// Neither version query holds the API mutex: a program can ask while another of its threads waits in a search
// or a connect.
int LumoraClientModule::GetClientVersion(int clientID, std::string& version) {
    LUMORA_TRACE("client [%d] Enter\n", clientID);
    if (!mClients.Has(clientID)) {
        LUMORA_ERROR("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    LUMORA_TRACE("client [%d] OUT.\n", clientID);
    if (mSources.getVersion(version) != 0) {
        LUMORA_ERROR("GetVersion failed!\n");
        return -1;
    }
    return 0;
}

int LumoraClientModule::GetServerVersion(int clientID, unsigned int handle, std::string& version) {
    LUMORA_TRACE("client [%d] Enter\n", clientID);
    if (!mClients.Has(clientID)) {
        LUMORA_ERROR("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    const RemoteDevices::Resolved resolved = Resolve(handle);
    if (!LeadsToDevice(__func__, handle, resolved)) {
        return -1;
    }
    if (resolved.device->Get(GET_VERSION_KEY, "", version) != 0) {
        LUMORA_ERROR("GetVersion fail\n");
        return -1;
    }
    LUMORA_DETAIL("version = %s\n", version.c_str());
    LUMORA_TRACE("client [%d] OUT.\n", clientID);
    return 0;
}

}  // namespace lumoraAiModule
