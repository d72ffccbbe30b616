// The version text that both sides report.
#pragma once

#include <string>

namespace lumoraAiModule {

// When this library was built, as the compiler writes it: "Feb  8 2020" and "19:09:15".
extern const char* const g_mRealDateTime;
extern const char* const g_mRealHourTime;

// Every operation returns 0, or -1 for a failure.
class LumoraVersion {
public:
    static int GetVersion(std::string& version);

    // The suffix of the version text that tells the build; releases carry none.
    static int GetBuildTime(std::string& buildTime);

    // date begins with a month's three letters; month receives 1 to 12, or 0 when it does not.
    static int GetMonth(unsigned int& month, const std::string& date);

    // "Feb  8 2020" becomes 20200208. A day of two digits is written twice.
    static int CalcBuildDate(std::string& result, const std::string& date);

    // "19:09:15" becomes 190915.
    static void CalcBuildHour(std::string& result, const std::string& time);
};

}  // namespace lumoraAiModule
