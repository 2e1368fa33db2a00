#include "frame/platform.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tw {

namespace {

constexpr std::size_t kStreamBuffer = 64 * 1024;

// A file system without flock support opens without a lock rather than not
// at all: exclusion is a safety net, not a reason to refuse work.
bool take_lock(int fd, bool exclusive) {
    if (::flock(fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0)
        return true;
    return errno == ENOLCK || errno == EOPNOTSUPP || errno == EINVAL;
}

int open_flags(OpenMode mode) {
    switch (mode) {
    case OpenMode::ReadShared:
    case OpenMode::ReadExclusive:
        return O_RDONLY;
    case OpenMode::WriteExisting:
        return O_WRONLY;
    case OpenMode::UpdateExisting:
        return O_RDWR;
    case OpenMode::Create:
        return O_RDWR | O_CREAT;
    }
    return O_RDONLY;
}

bool make_private_dir(const std::string &path) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        return false;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return false;
    if (!S_ISDIR(st.st_mode) || st.st_uid != ::geteuid())
        return false;
    // Ours but opened up to others: fixed work-file names must never lie
    // where someone else can plant a file, so close it again.
    return (st.st_mode & 077) == 0 || ::chmod(path.c_str(), 0700) == 0;
}

std::string executable_path() {
    char buffer[PATH_MAX + 1];
    ssize_t n = ::readlink("/proc/self/exe", buffer, PATH_MAX);
    if (n <= 0)
        return {};
    return std::string(buffer, static_cast<std::size_t>(n));
}

} // namespace

File &File::operator=(File &&other) noexcept {
    if (this != &other) {
        close();
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

File File::open(const std::string &path, OpenMode mode, bool no_follow) {
    if (path.empty() || !path_fits(path))
        return File();
    int flags = open_flags(mode) | O_CLOEXEC | (no_follow ? O_NOFOLLOW : 0);
    int fd = ::open(path.c_str(), flags, 0666);
    if (fd < 0)
        return File();
    File file(fd);
    // POSIX lets a directory open for reading, and its first read then fails,
    // which the readers take for the end of an empty file: a directory named
    // as a body or a message would pass as empty instead of failing.
    struct stat st {};
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode))
        return File();
    if (!take_lock(fd, mode != OpenMode::ReadShared))
        return File();
    // Emptied only once the lock is ours, so a refused open never destroys
    // what another holder is working on.
    if (mode == OpenMode::Create && ::ftruncate(fd, 0) != 0)
        return File();
    return file;
}

File File::create_new(const std::string &path) {
    if (path.empty() || !path_fits(path))
        return File();
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0)
        return File();
    File file(fd);
    take_lock(fd, true);
    return file;
}

File File::open_or_create_locked(const std::string &path) {
    if (path.empty() || !path_fits(path))
        return File();
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0)
        return File();
    File file(fd);
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || !take_lock(fd, true))
        return File();
    return file;
}

bool File::is_at(const std::string &path) const {
    struct stat open_st {}, path_st {};
    return fd_ >= 0 && ::fstat(fd_, &open_st) == 0 && ::lstat(path.c_str(), &path_st) == 0 &&
           open_st.st_dev == path_st.st_dev && open_st.st_ino == path_st.st_ino;
}

bool File::sync_and_close() {
    if (fd_ < 0)
        return false;
    const bool synced = ::fsync(fd_) == 0;
    const bool closed = ::close(fd_) == 0;
    fd_ = -1;
    return synced && closed;
}

int File::release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
}

bool File::write_all(const void *data, std::size_t length) {
    const char *p = static_cast<const char *>(data);
    while (length > 0) {
        ssize_t n = ::write(fd_, p, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

long long File::read_full(void *data, std::size_t length) {
    char *p = static_cast<char *>(data);
    std::size_t total = 0;
    while (total < length) {
        ssize_t n = ::read(fd_, p + total, length - total);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        total += static_cast<std::size_t>(n);
    }
    return static_cast<long long>(total);
}

bool File::seek(long long position) { return ::lseek(fd_, position, SEEK_SET) == position; }

long long File::seek_end() { return ::lseek(fd_, 0, SEEK_END); }

long long File::size() const {
    struct stat st {};
    if (::fstat(fd_, &st) != 0)
        return -1;
    return st.st_size;
}

bool File::truncate(long long length) { return ::ftruncate(fd_, length) == 0; }

void File::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool BufferedWriter::write(const char *data, std::size_t length) {
    if (used_ + length > capacity_ && !flush())
        return false;
    if (length >= capacity_)
        return ok_ = ok_ && file_.write_all(data, length);
    std::memcpy(buffer_.get() + used_, data, length);
    used_ += length;
    return ok_;
}

bool BufferedWriter::flush() {
    if (used_ > 0) {
        ok_ = ok_ && file_.write_all(buffer_.get(), used_);
        used_ = 0;
    }
    return ok_;
}

Stream::Stream(Stream &&other) noexcept : fp_(other.fp_), buffer_(std::move(other.buffer_)) {
    other.fp_ = nullptr;
}

Stream &Stream::operator=(Stream &&other) noexcept {
    if (this != &other) {
        close();
        fp_ = other.fp_;
        buffer_ = std::move(other.buffer_);
        other.fp_ = nullptr;
    }
    return *this;
}

Stream Stream::open_read(const std::string &path) {
    return adopt(File::open(path, OpenMode::ReadShared), "rb");
}

Stream Stream::adopt(File file, const char *mode) {
    Stream stream;
    if (!file.ok())
        return stream;
    int fd = file.release();
    FILE *fp = ::fdopen(fd, mode);
    if (fp == nullptr) {
        ::close(fd);
        return stream;
    }
    stream.buffer_.reset(new (std::nothrow) char[kStreamBuffer]);
    if (stream.buffer_)
        std::setvbuf(fp, stream.buffer_.get(), _IOFBF, kStreamBuffer);
    stream.fp_ = fp;
    return stream;
}

std::size_t Stream::read_line(char *buffer, std::size_t size) {
    // As fgets, but the count is exact even when the data holds NUL bytes:
    // the buffer is filled with non-zero bytes first, so the terminator
    // fgets writes is the last NUL in it. This keeps fgets's scan of the
    // stdio buffer, several times faster than a loop of getc.
    if (size == 0)
        return 0;
    const std::size_t limit = std::min(size, static_cast<std::size_t>(INT_MAX));
    std::memset(buffer, 0xFF, limit);
    if (::fgets_unlocked(buffer, static_cast<int>(limit), fp_) == nullptr) {
        buffer[0] = '\0';
        return 0;
    }
    const void *end = ::memrchr(buffer, '\0', limit);
    return static_cast<std::size_t>(static_cast<const char *>(end) - buffer);
}

long long Stream::tell() const { return ::ftello(fp_); }

bool Stream::seek(long long position) { return ::fseeko(fp_, position, SEEK_SET) == 0; }

bool Stream::close() {
    bool ok = true;
    if (fp_ != nullptr) {
        ok = std::fclose(fp_) == 0;
        fp_ = nullptr;
    }
    buffer_.reset();
    return ok;
}

TempFile &TempFile::operator=(TempFile &&other) noexcept {
    if (this != &other) {
        remove();
        path_ = std::move(other.path_);
        other.path_.clear();
    }
    return *this;
}

void TempFile::remove() {
    if (!path_.empty()) {
        ::unlink(path_.c_str());
        path_.clear();
    }
}

std::string make_temp_file(const std::string &directory) {
    std::string templ = directory + "$$$XXXXXX";
    if (!path_fits(templ))
        return {};
    int fd = ::mkstemp(templ.data());
    if (fd < 0)
        return {};
    ::close(fd);
    return templ;
}

int rename_no_replace(const std::string &from, const std::string &to) {
    if (!path_fits(from) || !path_fits(to))
        return ENAMETOOLONG;
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP)
        return errno;
    // The kernel or file system refuses the flag: a hard link fails on an
    // existing target just as well.
    if (::link(from.c_str(), to.c_str()) == 0) {
        ::unlink(from.c_str());
        return 0;
    }
    if (errno != EPERM && errno != ENOTSUP && errno != EXDEV)
        return errno;
    if (path_exists(to))
        return EEXIST;
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

int replace_file(const std::string &from, const std::string &to) {
    if (!path_fits(from) || !path_fits(to))
        return ENAMETOOLONG;
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

bool sync_directory(const std::string &directory) {
    int fd = ::open(directory.empty() ? "." : directory.c_str(),
                    O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = ::fsync(fd) == 0;
    ::close(fd);
    return synced;
}

bool path_exists(const std::string &path) {
    struct stat st {};
    return path_fits(path) && ::lstat(path.c_str(), &st) == 0;
}

bool remove_file(const std::string &path) { return ::unlink(path.c_str()) == 0; }

bool scan_directory(const std::string &directory,
                    const std::function<void(std::string_view name)> &visit) {
    DIR *dir = ::opendir(directory.empty() ? "." : directory.c_str());
    if (dir == nullptr)
        return false;
    while (struct dirent *entry = ::readdir(dir)) {
        std::string_view name(entry->d_name);
        if (name != "." && name != "..")
            visit(name);
    }
    ::closedir(dir);
    return true;
}

std::string current_directory() {
    std::string buffer(PATH_MAX, '\0');
    if (::getcwd(buffer.data(), buffer.size()) == nullptr)
        return {};
    buffer.resize(std::strlen(buffer.c_str()));
    return buffer;
}

std::string private_temp_directory() {
    std::error_code ec;
    std::filesystem::path base = std::filesystem::temp_directory_path(ec);
    if (ec)
        base = "/tmp";
    std::string dir = base.string();
    if (dir.empty() || dir.back() != '/')
        dir += '/';
    dir += "tarnwick-" + std::to_string(::geteuid());
    if (!make_private_dir(dir))
        return {};
    return dir + '/';
}

std::string application_directory() {
    std::string exe = executable_path();
    std::string exe_name = exe.substr(exe.find_last_of('/') + 1);
    if (exe_name.empty())
        exe_name = "unknown";
    std::string state;
    if (const char *xdg = std::getenv("XDG_STATE_HOME"); xdg != nullptr && xdg[0] == '/')
        state = xdg;
    else if (const char *home = std::getenv("HOME"); home != nullptr && home[0] == '/')
        state = std::string(home) + "/.local/state";
    if (!state.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(state, ec);
        std::string dir = state + "/tarnwick";
        if (make_private_dir(dir) && make_private_dir(dir + "/" + exe_name))
            return dir + "/" + exe_name + "/";
    }
    std::size_t slash = exe.find_last_of('/');
    if (slash == std::string::npos)
        return {};
    return exe.substr(0, slash + 1);
}

} // namespace tw
