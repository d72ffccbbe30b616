// The C++ header as a program without exceptions sees it: nothing in front of it, and twice.
#include "lumora.hpp"

static_assert(!std::is_copy_constructible_v<lumora::Client> &&
              std::is_nothrow_move_constructible_v<lumora::Client>);
static_assert(!std::is_move_constructible_v<lumora::Device>);
static_assert(!std::is_convertible_v<std::vector<std::string>, lumora::Bytes>, "their bytes are pointers");
static_assert(static_cast<int>(lumora::Transport::RTP) == LUM_TRANSPORT_RTP);

bool SendWithoutExceptions(lumora::Client& client);
bool SendWithoutExceptions(lumora::Client& client) {
    std::error_code error;
    return client.Send("data", error);
}
