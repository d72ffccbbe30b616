// Subscriptions that wait to be carried out.
#pragma once

#include <deque>

#include "hub/worker/frame_reader.h"

namespace lumora_hub {

// Drops the waiting request that the new one takes back: UNSUBSCRIBE for SUBSCRIBE, or the other way round.
// False if there is none. Consumers come and go faster than a slow device answers, so what waits for it must
// not grow with them.
bool DropOpposite(std::deque<Frame>& waiting, const Frame& request);

}  // namespace lumora_hub
