// What the web face answers: routes, rights and limits. Knows connections by their numbers, and no sockets.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "hub/core/device_hub.h"
#include "hub/core/figures.h"
#include "hub/core/quota.h"
#include "hub/web/admission.h"
#include "hub/web/block_flow.h"
#include "hub/web/device_news.h"
#include "hub/web/flow.h"
#include "hub/web/latest_blocks.h"
#include "hub/web/mailbox.h"
#include "hub/web/metrics.h"
#include "hub/web/options.h"
#include "hub/web/request.h"
#include "hub/web/routes.h"

namespace lumora_hub::web {

struct Reply {
    int status = 200;
    std::string contentType;
    std::vector<std::pair<std::string, std::string>> headers;  // more of them; names end with a colon
    std::string text;
    BlockPointer block;          // behind the text
    std::unique_ptr<Flow> flow;  // instead of both: sent until the connection ends
};

// What to do with a request.
struct Decision {
    enum class Kind {
        REPLY,  // now
        BODY,   // receive bodyBytes of it, then call TakeBody
        WAIT    // a reply follows
    };
    Kind kind = Kind::REPLY;
    Reply reply;
    std::size_t bodyBytes = 0;
    Quota::Share bodyShare;                 // to be kept until TakeBody is called
    std::chrono::milliseconds patience{0};  // how long to wait; then the answer is 504
};

// Belongs to the service thread.
class Site {
public:
    Site(DeviceHub& hub, const FigureBoard& figures, const WebOptions& options);
    ~Site();
    Site(const Site&) = delete;
    Site& operator=(const Site&) = delete;

    // number: of the connection; it comes back with a late reply.
    Decision Begin(std::uint64_t number, const Request& request);
    Decision TakeBody(std::uint64_t number, const Request& request, std::string body);
    // The connection has ended, or waits no more, in the middle of a request.
    void Forget(std::uint64_t number);

    struct LateReply {
        std::uint64_t number;
        Reply reply;
    };
    // What threads of the hub have left for connections.
    struct Mailing {
        std::vector<LateReply> replies;   // to those that wait
        std::set<std::uint64_t> streams;  // those that have a block to send
        bool hasNews = false;             // of devices, which any stream may have to send
    };
    Mailing TakeMail();
    // Once a second.
    void Tick();

    std::shared_ptr<Mailbox> Mail() { return mMailbox; }
    WebCounts& Counts() { return mCounts; }
    static Reply Error(int status, const std::string& text);

private:
    Decision Act(std::uint64_t number, const Request& request, const Match& match);
    Decision AwaitBody(const Request& request, std::size_t limit);
    Decision SendCommand(std::uint64_t number, const Request& request, const Match& match,
                         const std::string& body);
    Decision SendBlock(std::uint64_t number, const Request& request, const Match& match, std::string body);
    Decision LogIn(const Request& request, const std::string& body);
    Reply LogOut(const Request& request);
    Reply Device(const std::string& name) const;
    Decision Latest(std::uint64_t number, const Request& request, const Match& match);
    Decision News(const Request& request);
    Decision Stream(std::uint64_t number, const Request& request, const Match& match);
    Reply Unauthorized(const Request& request) const;
    DeviceHub::Done DoneFor(std::uint64_t number, Quota::Share share);

    DeviceHub& mHub;
    const FigureBoard& mFigures;
    const WebOptions mOptions;
    Admission mAdmission;
    WebCounts mCounts;
    Quota mUploads;
    Quota mRequests;
    Quota mStreams;
    Quota mNewsStreams;
    const std::shared_ptr<Mailbox> mMailbox = std::make_shared<Mailbox>();
    DeviceNews mNews;
    LatestBlocks mLatest;
    BlockEvents mBlockEvents;
    std::uint64_t mLastNumber = std::uint64_t{1}
                                << 62;  // of consumers for LatestBlocks; connections begin with 1
    // Requests that wait for a device.
    struct Pending {
        std::uint64_t connection = 0;
        Quota::Share share;
    };
    std::map<std::uint64_t, Pending> mPending;
    std::map<std::uint64_t, std::pair<std::string, std::string>> mAwaitingBlock;  // connections that do
    std::unique_ptr<Registration> mWatch;
};

}  // namespace lumora_hub::web
