#include "hub/core/device_link.h"

#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

#include "hub/core/log.h"

namespace lumora_hub {

namespace {

using Clock = EventLoop::Clock;

// A device that does not answer must not use up what all devices share.
constexpr std::size_t MOST_REQUESTS_OF_LINK = 64;
constexpr std::size_t MOST_REQUEST_BYTES_OF_LINK = std::size_t{16} << 20;
// A worker serves one request after the other. One more is there when the first has ended. Those that wait
// here can still be given up.
constexpr std::size_t MOST_AT_WORKER = 2;
// Of the numbers of blocks. A number that is further away, or not above the one before, is a mistake.
constexpr std::uint64_t WIDEST_GAP = std::uint64_t{1} << 32;
// A worker reads at once what it is told. One that has so many frames to read is stuck.
constexpr std::size_t MOST_UNREAD = 10000;
// A connection that lasted so long was a good one: what follows is no repetition of an earlier failure.
constexpr std::chrono::seconds GOOD_CONNECTION{5};
constexpr std::chrono::minutes UNDISTURBED_CONNECTION{2};
// Devices hear of a node that has left at about the same time as the hub; the hub's look at a channel comes
// up to two seconds later.
constexpr std::chrono::seconds NEIGHBOUR_TIME{8};
constexpr std::chrono::milliseconds OPENING_PAUSE{20};
// A device closes a channel on which it cannot send for half a second.
constexpr std::chrono::milliseconds STOPPED_FOR{400};
// What waited at the device comes when the network is whole again, and the end of the channel behind it.
constexpr std::chrono::seconds REST_TIME{3};
// The intervals of blocks are averaged over about so many.
constexpr double AVERAGED = 8;

FrameHead HeadOf(FrameKind kind, std::uint64_t number = 0) {
    FrameHead head;
    head.kind = kind;
    head.number = number;
    return head;
}

}  // namespace

DeviceLink::DeviceLink(LinkSurroundings& surroundings, Events events)
    : mSurroundings(surroundings), mEvents(std::move(events)) {}

DeviceLink::~DeviceLink() {
    Drop();
    mSurroundings.loop.Cancel(mRetry);
    mSurroundings.loop.Cancel(mIdle);
    while (!mRequests.empty()) {
        Finish(mRequests.begin()->first, Outcome::UNREACHABLE);
    }
}

// A device that was started again has another port. The worker of the former one is of no use.
void DeviceLink::SetPlace(std::optional<Place> place) {
    if (place == mPlace) {
        return;
    }
    mPlace = std::move(place);
    Stop();
    mBackOff.Reset();
    mGiveWay.Reset();
    Update();
}

void DeviceLink::SetWanted(std::set<std::string> services) {
    mWanted = std::move(services);
    Update();
}

void DeviceLink::Request(FrameKind kind, const std::string& name, const std::string& body,
                         DeviceHub::Done onDone) {
    if (mRequests.size() >= MOST_REQUESTS_OF_LINK ||
        mRequestBytes + body.size() > MOST_REQUEST_BYTES_OF_LINK) {
        onDone(Outcome::BUSY);
        return;
    }
    const std::uint64_t request = ++mLastRequest;
    Waiting& waiting = mRequests[request];
    waiting.bytes = body.size();
    mRequestBytes += body.size();
    waiting.frame = EncodeFrame(HeadOf(kind, request), name, body);
    waiting.onDone = std::move(onDone);
    waiting.timer = mSurroundings.loop.After(mSurroundings.settings.connect, [this, request] {
        Finish(request, mConnected ? Outcome::BUSY : Outcome::UNREACHABLE);
        Update();
    });
    Update();
}

// ---- The worker

// Brings what is in line with what is wanted.
void DeviceLink::Update() {
    const bool needed = mPlace && (!mWanted.empty() || !mRequests.empty());
    if (!needed) {
        mSurroundings.loop.Cancel(mRetry);
        if (mWorker == nullptr) {
            mChannel.Release();
            Become(ChannelState::IDLE);
        } else if (mIdle == 0) {
            mIdle = mSurroundings.loop.After(mSurroundings.settings.idle, [this] {
                mIdle = 0;
                Stop();
                Become(ChannelState::IDLE);
            });
        }
    } else {
        mSurroundings.loop.Cancel(mIdle);
        if (mWorker == nullptr && mRetry == 0) {
            Start();
        }
    }
    if (mConnected) {
        Subscribe();
        SendRequests();
        SetDeadline();
    }
}

// One that waits for others counts as being opened: its consumers see no difference.
void DeviceLink::Start() {
    const std::string& address = mPlace->address;
    if (!mChannel && !(mChannel = mSurroundings.channels.Take(address))) {
        RefuseChannel();
        return;
    }
    mOpening = mSurroundings.opening.Take(address);
    if (!mOpening) {
        UpdateAfter(OPENING_PAUSE);
        Become(ChannelState::CONNECTING);
        return;
    }
    mPort = mSurroundings.ports.Take().value();  // there are as many as channels
    try {
        StartWorker(mPort);
        EndAfter(mSurroundings.settings.open, "its worker opens no channel");
        Become(ChannelState::CONNECTING);
    } catch (const std::system_error& error) {
        OnEnd(EndReason::CONNECT_FAILED, std::string("no worker can be started: ") + error.what());
    }
}

void DeviceLink::RefuseChannel() {
    if (!mSurroundings.channels.HasItsShare(mPlace->address)) {
        OnEnd(EndReason::PORT_TAKEN, "all data ports are in use; --ports names more");
        return;
    }
    ++mSurroundings.refused;
    HUB_LOG_LIMITED(
        lumora::LOG_WARNING,
        "The device of type \"%s\" at %s gets no channel: too many others at its address have one.\n",
        mPlace->type.c_str(), mPlace->address.c_str());
    UpdateAfter(mBackOff.Next());
    Become(ChannelState::FAILED, "too many devices at its address have channels; --ports names more ports");
}

void DeviceLink::StartWorker(int port) {
    const std::vector<std::string> words = {mSurroundings.settings.worker, mPlace->type, mPlace->address,
                                            std::to_string(mPlace->port), std::to_string(port)};
    WorkerProcess::Events events;
    events.onFrame = [this](Frame frame) { OnFrame(std::move(frame)); };
    events.onEnd = [this](EndReason reason, const std::string& text) { OnEnd(reason, text); };
    for (auto& [service, numbers] : mNumbers) {
        numbers.second = numbers.first;
    }
    mWorker =
        std::make_unique<WorkerProcess>(mSurroundings.loop, mSurroundings.reaper, words, std::move(events));
}

void DeviceLink::Stop() {
    Drop();
    mSurroundings.loop.Cancel(mRetry);
    mSurroundings.loop.Cancel(mIdle);
}

// Ends the worker, and what it was told goes with it.
void DeviceLink::Drop() {
    mWorker.reset();
    mOpening.Release();
    if (mPort != 0) {
        mSurroundings.ports.Release(std::exchange(mPort, 0));
    }
    mChannel.Release();
    mConnected = false;
    mSurroundings.loop.Cancel(mDeadline);
    mSubscribed.clear();
    mAtWorker.clear();
    FinishSent();
}

void DeviceLink::UpdateAfter(std::chrono::milliseconds pause) {
    mRetry = mSurroundings.loop.After(pause, [this] {
        mRetry = 0;
        Update();
    });
}

void DeviceLink::Become(ChannelState state, std::string trouble) {
    if (state != mState || trouble != mTrouble) {
        mState = state;
        mTrouble = std::move(trouble);
        mEvents.onChanged();
    }
}

// ---- What the worker is told

void DeviceLink::Subscribe() {
    for (const std::string& service : mWanted) {
        if (mSubscribed.insert(service).second) {
            mWorker->Send(EncodeFrame(HeadOf(FrameKind::SUBSCRIBE), service, {}));
        }
    }
    for (auto service = mSubscribed.begin(); service != mSubscribed.end();) {
        if (mWanted.count(*service) != 0) {
            ++service;
            continue;
        }
        mWorker->Send(EncodeFrame(HeadOf(FrameKind::UNSUBSCRIBE), *service, {}));
        service = mSubscribed.erase(service);
    }
}

void DeviceLink::SendRequests() {
    for (auto& [number, waiting] : mRequests) {
        if (mAtWorker.size() >= MOST_AT_WORKER) {
            return;
        }
        if (!waiting.frame.empty()) {
            mWorker->Send(std::exchange(waiting.frame, {}));
            mSurroundings.loop.Cancel(waiting.timer);
            mAtWorker.insert(number);
        }
    }
}

// A worker that is stuck gives way to another one. Otherwise its requests would have no end.
void DeviceLink::SetDeadline() {
    if (mWorker->Unread() > MOST_UNREAD) {
        EndAfter(std::chrono::milliseconds(0), "its worker does not read");
    } else if (mAtWorker.empty()) {
        mSurroundings.loop.Cancel(mDeadline);
    } else if (mDeadline == 0) {
        EndAfter(mSurroundings.settings.answer, "its worker does not answer");
    }
}

// Not at once: the worker may be the caller.
void DeviceLink::EndAfter(std::chrono::milliseconds time, const char* trouble) {
    mSurroundings.loop.Cancel(mDeadline);
    mDeadline = mSurroundings.loop.After(time, [this, trouble] {
        mDeadline = 0;
        OnEnd(EndReason::CONNECT_FAILED, trouble);
    });
}

void DeviceLink::Finish(std::uint64_t request, Outcome outcome) {
    const auto found = mRequests.find(request);
    if (found == mRequests.end()) {
        return;
    }
    mSurroundings.loop.Cancel(found->second.timer);
    mRequestBytes -= found->second.bytes;
    const DeviceHub::Done onDone = std::move(found->second.onDone);
    mRequests.erase(found);
    onDone(outcome);
}

void DeviceLink::FinishSent() {
    std::vector<std::uint64_t> sent;
    for (const auto& [request, waiting] : mRequests) {
        if (waiting.frame.empty()) {
            sent.push_back(request);
        }
    }
    for (const std::uint64_t request : sent) {
        Finish(request, Outcome::REFUSED);
    }
}

// ---- What the worker says

void DeviceLink::OnFrame(Frame frame) {
    switch (frame.head.kind) {
        case FrameKind::CONNECTED:
            OnConnected(frame);
            break;
        case FrameKind::BLOCK:
            OnBlock(std::move(frame));
            break;
        case FrameKind::SUBSCRIBED:
            if (frame.head.code != 0 && mSubscribed.count(frame.name) != 0) {
                Become(mState, "the device refuses the subscription to \"" + frame.name + '"');
            }
            break;
        case FrameKind::ANSWER:
            if (mAtWorker.erase(frame.head.number) == 0) {
                break;
            }
            mSurroundings.loop.Cancel(mDeadline);
            Finish(frame.head.number, frame.head.code == 0 ? Outcome::DONE : Outcome::REFUSED);
            Update();
            break;
        default:
            break;
    }
}

void DeviceLink::OnConnected(const Frame& frame) {
    mOpening.Release();
    mSurroundings.loop.Cancel(mDeadline);
    mConnected = true;
    mConnectedAt = Clock::now();
    mLastBlock = mConnectedAt;
    mWentOnAt = {};
    mInterval = {};
    ++mConnections;
    mVersion = frame.name;
    mIdentity = frame.head.code != 0 ? std::optional(frame.body) : std::nullopt;
    Become(ChannelState::CONNECTED);
    Update();
}

void DeviceLink::OnBlock(Frame frame) {
    if (mSubscribed.count(frame.name) == 0) {
        return;  // it was under way when the subscription ended
    }
    auto& [last, before] = mNumbers[frame.name];
    const std::uint64_t number = before + frame.head.number;
    last = number > last && number - last <= WIDEST_GAP ? number : last + 1;
    const Clock::time_point now = Clock::now();
    if (HasStopped(now)) {
        mWentOnAt = now;
    }
    mInterval += (now - mLastBlock - mInterval) / AVERAGED;
    mLastBlock = now;
    mEvents.onBlock(frame.name, last, std::move(frame.body));
}

void DeviceLink::OnEnd(EndReason reason, const std::string& text) {
    const std::chrono::milliseconds pause = PauseAfter(reason);
    Drop();
    HUB_LOG(lumora::LOG_WARNING, "The channel to %s at %s:%d has ended: %s. Next try in %lld ms.\n",
            mPlace->type.c_str(), mPlace->address.c_str(), mPlace->port, text.c_str(),
            static_cast<long long>(pause.count()));
    UpdateAfter(pause);
    Become(ChannelState::FAILED, text);
    if (reason != EndReason::PORT_TAKEN) {
        mEvents.onUnreachable();
    }
}

std::chrono::milliseconds DeviceLink::PauseAfter(EndReason reason) {
    const Clock::time_point now = Clock::now();
    if (mConnected && now - mConnectedAt >= GOOD_CONNECTION) {
        mBackOff.Reset();
    }
    if (mConnected && now - mConnectedAt >= UNDISTURBED_CONNECTION) {
        mGiveWay.Reset();
    }
    const bool byNeighbour = now - mSurroundings.neighbourLeft < NEIGHBOUR_TIME;
    const bool byAnother = reason == EndReason::CHANNEL_ENDED && !byNeighbour && !HadStopped(now);
    return byAnother ? mGiveWay.Next() : mBackOff.Next();
}

// Whether blocks that came often have stopped. Not if the connection is young: it may be a part of a fight
// with another client.
bool DeviceLink::HasStopped(Clock::time_point now) const {
    const auto silence = now - mLastBlock;
    return mConnected && mLastBlock - mConnectedAt >= GOOD_CONNECTION && silence >= STOPPED_FOR &&
           silence > 4 * mInterval;
}

// Before the end of a channel. Then the network was probably cut: another client takes the place of this one
// at once.
bool DeviceLink::HadStopped(Clock::time_point now) const {
    return HasStopped(now) || (mConnected && now - mWentOnAt < REST_TIME);
}

}  // namespace lumora_hub
