#include "support/file.h"

#include "support/input_error.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <unistd.h>
#include <utility>

namespace support {

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePointer = std::unique_ptr<std::FILE, FileCloser>;

std::string outputName(const std::string& file) {
    return file == "-" ? "standard output" : "\"" + file + "\"";
}

[[noreturn]] void failOn(const char* what, const std::string& name, int error) {
    throw InputError(std::string("cannot ") + what + " " + name + ": " + std::strerror(error));
}

std::vector<std::uint8_t> readAll(std::FILE* from, const std::string& name, std::size_t limit) {
    std::vector<std::uint8_t> contents;
    std::uint8_t chunk[65536];
    while (const std::size_t count = std::fread(chunk, 1, sizeof chunk, from)) {
        if (contents.size() + count > limit) {
            throw InputError(name + " is longer than the " + std::to_string(limit) + " bytes allowed");
        }
        contents.insert(contents.end(), chunk, chunk + count);
    }
    if (std::ferror(from)) {
        failOn("read", name, errno);
    }
    return contents;
}

// A file in the folder of the target. A rename inside one folder replaces the old file in one step.
class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string& target)
        : target_(target), path_(target + ".part-" + std::to_string(::getpid())),
          descriptor_(::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)) {
        if (descriptor_ < 0) {
            failOn("write", outputName(target_), errno);
        }
    }

    ~TemporaryFile() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
            ::unlink(path_.c_str());
        }
    }

    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    void write(std::span<const std::uint8_t> contents) {
        while (!contents.empty()) {
            const ssize_t count = ::write(descriptor_, contents.data(), contents.size());
            if (count < 0 && errno != EINTR) {
                failOn("write", outputName(target_), errno);
            }
            contents = contents.subspan(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        }
    }

    void moveIntoPlace() {
        const int descriptor = std::exchange(descriptor_, -1);
        if (::close(descriptor) != 0) {
            const int error = errno;
            ::unlink(path_.c_str());
            failOn("write", outputName(target_), error);
        }
        if (std::rename(path_.c_str(), target_.c_str()) != 0) {
            const int error = errno;
            ::unlink(path_.c_str());
            failOn("write", outputName(target_), error);
        }
    }

  private:
    std::string target_;
    std::string path_;
    int descriptor_;
};

} // namespace

std::string inputName(const std::string& file) {
    return file == "-" ? "standard input" : "\"" + file + "\"";
}

std::vector<std::uint8_t> readFile(const std::string& file, std::size_t limit) {
    if (file == "-") {
        return readAll(stdin, inputName(file), limit);
    }
    const FilePointer from(std::fopen(file.c_str(), "rb"));
    if (!from) {
        failOn("read", inputName(file), errno);
    }
    return readAll(from.get(), inputName(file), limit);
}

void writeFile(const std::string& file, std::span<const std::uint8_t> contents) {
    if (file == "-") {
        if (std::fwrite(contents.data(), 1, contents.size(), stdout) != contents.size() ||
            std::fflush(stdout) != 0) {
            failOn("write", outputName(file), errno);
        }
        return;
    }
    // Devices and pipes cannot be replaced by a rename.
    std::error_code ignored;
    if (std::filesystem::exists(file, ignored) && !std::filesystem::is_regular_file(file, ignored)) {
        const FilePointer to(std::fopen(file.c_str(), "wb"));
        if (!to || std::fwrite(contents.data(), 1, contents.size(), to.get()) != contents.size() ||
            std::fflush(to.get()) != 0) {
            failOn("write", outputName(file), errno);
        }
        return;
    }
    TemporaryFile temporary(file);
    temporary.write(contents);
    temporary.moveIntoPlace();
}

void requireWritable(const std::string& file) {
    if (file == "-") {
        return;
    }
    std::error_code ignored;
    if (std::filesystem::is_directory(file, ignored)) {
        failOn("write", outputName(file), EISDIR);
    }
    std::filesystem::path directory = std::filesystem::path(file).parent_path();
    if (directory.empty()) {
        directory = ".";
    }
    if (::access(directory.c_str(), W_OK | X_OK) != 0) {
        failOn("write", outputName(file), errno);
    }
}

} // namespace support
