// Reads the text in a PNG or JPEG picture, with Tesseract.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace tesseract {
class TessBaseAPI;
}

namespace text_reader {

// Only Cancel may be called while another thread calls a function. Failures are std::runtime_error with a
// text that can be shown.
class TextRecognizer {
public:
    // A language is a name of Tesseract's, "eng" for one, or several with "+" between them.
    TextRecognizer(const std::string& language, std::chrono::milliseconds limit);
    ~TextRecognizer();
    TextRecognizer(const TextRecognizer&) = delete;
    TextRecognizer& operator=(const TextRecognizer&) = delete;

    // Only languages that are installed; after a failure the one before stays.
    void SetLanguage(const std::string& language);

    std::string Read(const std::string& picture);

    // Makes a Read in progress fail soon, and every later one at once. From any thread.
    void Cancel() { mCancelled = true; }

private:
    static std::unique_ptr<tesseract::TessBaseAPI> Load(const std::string& language);
    std::vector<std::string> InstalledLanguages() const;
    void RequireGoingOn() const;
    void RequireInstalled(const std::string& language) const;

    const std::chrono::milliseconds mLimit;  // for one picture
    std::unique_ptr<tesseract::TessBaseAPI> mTesseract;
    std::atomic<bool> mCancelled{false};
};

}  // namespace text_reader
