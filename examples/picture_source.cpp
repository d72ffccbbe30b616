#include "picture_source.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <stdexcept>
#include <system_error>

namespace face_camera {

namespace {

// Only the first bytes are looked at, so a video is told from a picture whatever its name is.
std::vector<std::string> PicturesIn(const std::filesystem::path& path) {
    std::vector<std::string> files;
    if (!std::filesystem::is_directory(path)) {
        files.push_back(path.string());
    } else {
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            if (entry.is_regular_file()) {
                files.push_back(entry.path().string());
            }
        }
    }
    files.erase(std::remove_if(files.begin(), files.end(),
                               [](const std::string& file) { return !cv::haveImageReader(file); }),
                files.end());
    std::sort(files.begin(), files.end());
    return files;
}

// Why a source cannot be opened; OpenCV does not tell.
std::string Reason(const std::string& path, bool isCamera) {
    if (access(path.c_str(), isCamera ? R_OK | W_OK : R_OK) != 0) {
        return ": " + std::generic_category().message(errno);
    }
    return isCamera ? ": it is no camera, or another program uses it"
                    : ": it is neither a picture nor a video that can be read";
}

}  // namespace

PictureSource::PictureSource(const std::string& path) : mPath(path) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (!std::filesystem::exists(status)) {
        throw std::runtime_error(path + ": " + (error ? error.message() : "there is no such file") +
                                 "; --from names a camera, a video, a picture or a folder");
    }
    const bool isCamera = std::filesystem::is_character_file(status);
    // Opening a FIFO would wait for its writer.
    if (!isCamera && !std::filesystem::is_regular_file(status) && !std::filesystem::is_directory(status)) {
        throw std::runtime_error(path + " is neither a camera nor a file nor a folder");
    }
    mKind = isCamera ? Kind::CAMERA : Kind::PICTURES;
    if (mKind == Kind::PICTURES) {
        mFiles = PicturesIn(path);
        if (mFiles.empty() && std::filesystem::is_directory(status)) {
            throw std::runtime_error(path + " has no pictures that can be read");
        }
        mKind = mFiles.empty() ? Kind::VIDEO : Kind::PICTURES;
    }
    if (mKind != Kind::PICTURES) {
        OpenVideo();
    }
}

std::string PictureSource::Name() const {
    const char* const kind = mKind == Kind::CAMERA ? "the camera " : mKind == Kind::VIDEO ? "the video " : "";
    return kind + mPath;
}

void PictureSource::OpenVideo() {
    const bool opened =
        mKind == Kind::CAMERA ? mVideo.open(mPath, cv::CAP_V4L2) : mVideo.open(mPath, cv::CAP_FFMPEG);
    if (!opened) {
        throw std::runtime_error(Name() + " cannot be opened" + Reason(mPath, mKind == Kind::CAMERA));
    }
    if (mKind == Kind::CAMERA) {
        // Pictures are taken only for subscribers. The first one after a pause would be an old one of the
        // driver's queue.
        mVideo.set(cv::CAP_PROP_BUFFERSIZE, 1);
    }
}

cv::Mat PictureSource::Next() { return mKind == Kind::PICTURES ? NextOfFiles() : NextOfVideo(); }

cv::Mat PictureSource::NextOfVideo() {
    cv::Mat picture;
    if (mVideo.read(picture)) {
        return picture;
    }
    if (mKind == Kind::VIDEO) {
        // Its end: once more from the beginning. Not every format can be wound back.
        OpenVideo();
        if (mVideo.read(picture)) {
            return picture;
        }
    }
    throw std::runtime_error(Name() + " gives no pictures");
}

cv::Mat PictureSource::NextOfFiles() {
    if (!mOnly.empty()) {
        return mOnly.clone();
    }
    // A file may have been removed or cut meanwhile: the next one takes its place.
    for (std::size_t tried = 0; tried < mFiles.size(); ++tried) {
        const std::string& file = mFiles[mNextFile];
        mNextFile = (mNextFile + 1) % mFiles.size();
        cv::Mat picture = cv::imread(file, cv::IMREAD_COLOR);
        if (!picture.empty()) {
            if (mFiles.size() == 1) {
                mOnly = picture.clone();
            }
            return picture;
        }
    }
    throw std::runtime_error("no picture of " + mPath + " can be read");
}

}  // namespace face_camera
