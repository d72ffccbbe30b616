// What the faces count, for the face that shows it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/mutex.h"

namespace lumora_hub {

struct Figure {
    enum class Kind {
        COUNTER,  // only grows; its name ends in _total
        GAUGE
    };
    std::string name;  // as Prometheus wants names: lumora_hub_mqtt_blocks_total
    Kind kind = Kind::COUNTER;
    std::string help;  // a sentence in one line
    std::uint64_t value = 0;
};

// A face puts its figures here now and then, and no call goes from one face to another. Any thread may call
// its functions.
class FigureBoard {
public:
    // Replaces the former figures of this owner.
    void Put(const std::string& owner, std::vector<Figure> figures);
    // Those of all owners, in the order of the owners' names.
    std::vector<Figure> All() const;

private:
    mutable lumora::Mutex mMutex;  // a leaf lock
    std::map<std::string, std::vector<Figure>> mFigures GUARDED_BY(mMutex);
};

}  // namespace lumora_hub
