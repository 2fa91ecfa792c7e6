#include "files.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace defs {

static bool complain_of_errno(Report &report, const std::string &path)
{
    complain(report, {path, 0}, "%s", strerror(errno));
    return false;
}

bool read_file(const std::string &path, std::string &bytes, Report &report)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return complain_of_errno(report, path);
    char piece[65536];
    ssize_t got;
    bytes.clear();
    while ((got = read(fd, piece, sizeof piece)) > 0 || (got < 0 && errno == EINTR)) {
        if (got > 0)
            bytes.append(piece, static_cast<size_t>(got));
    }
    if (got < 0)
        complain_of_errno(report, path);
    close(fd);
    return got == 0;
}

static bool write_all(int fd, const std::string &bytes)
{
    for (size_t at = 0; at < bytes.size();) {
        ssize_t put = write(fd, bytes.data() + at, bytes.size() - at);
        if (put < 0 && errno != EINTR)
            return false;
        if (put > 0)
            at += static_cast<size_t>(put);
    }
    return true;
}

static bool write_in_place(const std::string &path, const std::string &bytes)
{
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    bool written = fd >= 0 && write_all(fd, bytes);
    return fd >= 0 && close(fd) == 0 && written;
}

// The rights that a new file would get; mkstemp gives fewer.
static mode_t usual_rights()
{
    mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

static bool write_and_rename(const std::string &path, const std::string &bytes)
{
    std::string other = path + ".XXXXXX";
    int fd = mkstemp(other.data());
    if (fd < 0)
        return false;
    bool written = write_all(fd, bytes) && fchmod(fd, usual_rights()) == 0;
    written = close(fd) == 0 && written;
    if (written && rename(other.c_str(), path.c_str()) == 0)
        return true;
    int why = errno;
    unlink(other.c_str());
    errno = why;
    return false;
}

bool write_file(const std::string &path, const std::string &bytes, Report &report)
{
    std::error_code none;
    std::filesystem::file_status status = std::filesystem::status(path, none);
    bool written;
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        written = write_in_place(path, bytes);
    } else {
        // A link keeps pointing to the file.
        std::string target =
            std::filesystem::is_symlink(path, none) ? std::filesystem::canonical(path, none).string() : path;
        written = write_and_rename(target.empty() ? path : target, bytes);
    }
    return written || complain_of_errno(report, path);
}

bool text_in(const char *room, size_t size, std::string &text)
{
    size_t length = strnlen(room, size);
    text.assign(room, length);
    return length < size;
}

}  // namespace defs
