// Lines that tell what happens while a command runs.
#pragma once

#include <string>

#include "tools/lumora/terminal/json.h"

namespace lumora_cli {

// One event, now: its fields for --json, and a sentence for people.
class EventLine {
public:
    explicit EventLine(const char* event);

    template <typename Value>
    EventLine& Add(const char* key, const Value& value) {
        mJson.Add(key, value);
        return *this;
    }
    EventLine& AddRaw(const char* key, const std::string& json) {
        mJson.AddRaw(key, json);
        return *this;
    }
    void Print(const std::string& text) const;

private:
    JsonObject mJson;
    std::string mClock;
};

}  // namespace lumora_cli
