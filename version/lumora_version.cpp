#include "version/lumora_version.h"

#include <array>
#include <cstdlib>

#include "base/log.h"

namespace lumoraAiModule {

// SOURCE_DATE_EPOCH fixes both if a build has to be reproducible.
const char* const g_mRealDateTime = __DATE__;
const char* const g_mRealHourTime = __TIME__;

namespace {

constexpr const char* MAJOR = "1";
constexpr const char* MINOR = "1";
constexpr const char* PATCH = "1";
constexpr const char* SEPARATOR = ".";
constexpr const char* ZERO = "0";
constexpr int LAST_ONE_DIGIT = 9;

constexpr std::array<const char*, 12> MONTH_NAMES = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Like substr, but empty if the text is too short.
std::string Cut(const std::string& text, std::size_t offset, std::size_t count) {
    return offset < text.size() ? text.substr(offset, count) : std::string();
}

}  // namespace

int LumoraVersion::GetVersion(std::string& version) {
    std::string suffix = "_";
    const int ret = GetBuildTime(suffix);
    if (ret != 0) {
        LUMORA_ERROR("GetBuildTime failed.\n");
        return ret;
    }
    version = std::string(MAJOR) + SEPARATOR + MINOR + SEPARATOR + PATCH + suffix;
    LUMORA_DETAIL("version = %s\n", version.c_str());
    return 0;
}

// Empty on purpose: releases carry no suffix. CalcBuildDate and CalcBuildHour make the parts of one.
int LumoraVersion::GetBuildTime(std::string& buildTime) {
    buildTime.clear();
    return 0;
}

int LumoraVersion::GetMonth(unsigned int& month, const std::string& date) {
    month = 0;
    for (std::size_t i = 0; i < MONTH_NAMES.size(); ++i) {
        if (date.compare(0, 3, MONTH_NAMES[i]) == 0) {
            month = static_cast<unsigned int>(i) + 1;
            return 0;
        }
    }
    LUMORA_ERROR("Time error.\n");
    return -1;
}

// A day of two digits is written twice ("1818"): programs that compare such suffixes know them so. The
// compiler pads a day of one digit with a blank, which atoi skips.
int LumoraVersion::CalcBuildDate(std::string& result, const std::string& date) {
    std::string dayText = Cut(date, 4, 2);
    const int day = std::atoi(dayText.c_str());
    if (day <= LAST_ONE_DIGIT) {
        dayText = ZERO;
    }
    dayText += std::to_string(day);

    unsigned int month = 0;
    const int ret = GetMonth(month, date);
    if (ret != 0) {
        LUMORA_ERROR("Get Month failed.\n");
        return ret;
    }
    const std::string monthText = (month <= LAST_ONE_DIGIT ? ZERO : "") + std::to_string(month);

    result = Cut(date, 7, 4) + monthText + dayText;
    LUMORA_DETAIL("dateResult = %s\n", result.c_str());
    return 0;
}

void LumoraVersion::CalcBuildHour(std::string& result, const std::string& time) {
    result = Cut(time, 0, 2) + Cut(time, 3, 2) + Cut(time, 6, 2);
    LUMORA_DETAIL("hourResult = %s\n", result.c_str());
}

}  // namespace lumoraAiModule
