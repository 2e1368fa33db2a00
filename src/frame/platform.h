// The one place where the library meets the operating system: opens with their
// locks, line streams, temporary files, the rename that refuses to replace, the
// numbered-name scan, and the directories the library works in. No other file
// calls open, flock, rename, mkstemp, opendir, getcwd or stat directly.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tw {

// Every path buffer of the library is 1024 bytes; a path must leave room for
// its NUL, so 1023 bytes is the longest that passes.
inline constexpr std::size_t kMaxPath = 1023;

inline bool path_fits(std::string_view path) { return path.size() <= kMaxPath; }

enum class OpenMode {
    ReadShared,     // read; others may read
    ReadExclusive,  // read; nobody else
    WriteExisting,  // write; must exist; content stays
    UpdateExisting, // read and write; must exist; content stays
    Create,         // read and write; created, or emptied if it exists
};

// An open descriptor with its flock. Moving transfers ownership; the
// destructor closes, which releases the lock.
class File {
public:
    File() = default;
    ~File() { close(); }
    File(File &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    File &operator=(File &&other) noexcept;
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    // `no_follow` refuses a symlink in the last component: fixed-name work
    // files use it so that a planted link cannot redirect a write.
    static File open(const std::string &path, OpenMode mode, bool no_follow = false);
    // Creates a new file and fails if anything of that name exists.
    static File create_new(const std::string &path);

    bool ok() const { return fd_ >= 0; }
    explicit operator bool() const { return ok(); }
    int fd() const { return fd_; }
    int release(); // hands the descriptor (and its lock) to the caller

    bool write_all(const void *data, std::size_t length);
    bool write_all(std::string_view text) { return write_all(text.data(), text.size()); }
    // Reads until `length` bytes or the end; -1 on a failed read.
    long long read_full(void *data, std::size_t length);
    bool seek(long long position);
    long long seek_end(); // the new position, or -1
    long long size() const;
    bool truncate(long long length);
    void close();

    // Opens `path` for reading and writing with an exclusive lock, creating
    // it empty if there is none; nothing is truncated. A symlink, or
    // anything but a regular file, is refused.
    static File open_or_create_locked(const std::string &path);
    // True while `path` still names this open file: one replaced or removed
    // since it was opened is not what the next opener finds.
    bool is_at(const std::string &path) const;
    // Flushes the file to stable storage, then closes it. False if either
    // failed; the descriptor is closed in any case.
    bool sync_and_close();

private:
    explicit File(int fd) : fd_(fd) {}
    int fd_ = -1;
};

// Collects small writes (lines) for a File and passes them on in large
// blocks, so copying a body line by line costs no system call per line.
// Nothing is written after the first failure; flush() reports it.
class BufferedWriter {
public:
    explicit BufferedWriter(File &file, std::size_t capacity = 64 * 1024)
        : file_(file), buffer_(new char[capacity]), capacity_(capacity) {}
    ~BufferedWriter() { flush(); }
    BufferedWriter(const BufferedWriter &) = delete;
    BufferedWriter &operator=(const BufferedWriter &) = delete;

    bool write(const char *data, std::size_t length);
    bool flush();

private:
    File &file_;
    std::unique_ptr<char[]> buffer_;
    std::size_t capacity_;
    std::size_t used_ = 0;
    bool ok_ = true;
};

// A buffered stdio stream over a locked descriptor, binary, 64 KiB buffer.
class Stream {
public:
    Stream() = default;
    ~Stream() { close(); }
    Stream(Stream &&other) noexcept;
    Stream &operator=(Stream &&other) noexcept;
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    // "rb" with a shared lock, as every read stream of the library.
    static Stream open_read(const std::string &path);
    // Wraps an open File; `mode` is an fdopen mode ("rb", "r+b", "wb").
    static Stream adopt(File file, const char *mode);

    bool ok() const { return fp_ != nullptr; }
    explicit operator bool() const { return ok(); }
    FILE *get() const { return fp_; }
    // One bounded line read, as fgets: up to size-1 bytes or through LF.
    // Returns the number of bytes read, 0 at the end.
    std::size_t read_line(char *buffer, std::size_t size);
    long long tell() const;
    bool seek(long long position);
    bool close(); // false if flushing failed

private:
    FILE *fp_ = nullptr;
    std::unique_ptr<char[]> buffer_;
};

// Removes its path when it leaves scope, unless told to keep it.
class TempFile {
public:
    TempFile() = default;
    explicit TempFile(std::string path) : path_(std::move(path)) {}
    ~TempFile() { remove(); }
    TempFile(TempFile &&other) noexcept : path_(std::move(other.path_)) { other.path_.clear(); }
    TempFile &operator=(TempFile &&other) noexcept;
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;

    const std::string &path() const { return path_; }
    bool empty() const { return path_.empty(); }
    void keep() { path_.clear(); }
    void remove();
    void reset(std::string path) { remove(); path_ = std::move(path); }

private:
    std::string path_;
};

// Creates an empty file "$$$XXXXXX" in `directory` (which ends with '/') and
// gives its path, or an empty string if the system refused.
std::string make_temp_file(const std::string &directory);

// Renames, but never replaces an existing target. 0 or an errno value.
int rename_no_replace(const std::string &from, const std::string &to);

// Renames over an existing target in one step, as rename(2): a reader
// finds the old file or the new one, never neither. 0 or an errno value.
int replace_file(const std::string &from, const std::string &to);

// Flushes the entries of `directory` (renames, removals) to stable storage.
bool sync_directory(const std::string &directory);

bool path_exists(const std::string &path);
bool remove_file(const std::string &path);

// Calls `visit` with each entry name of `directory` ("." and ".." left out).
// False if the directory could not be read.
bool scan_directory(const std::string &directory,
                    const std::function<void(std::string_view name)> &visit);

// The current working directory, without a closing '/' unless it is the root.
std::string current_directory();

// `<temp>/tarnwick-<uid>/`, created 0700; empty if it is unsafe or cannot be
// made (a symlink, not a directory, or owned by someone else).
std::string private_temp_directory();

// `${XDG_STATE_HOME:-$HOME/.local/state}/tarnwick/<executable>/`, created
// 0700; else the executable's own directory. Always ends with '/', empty if
// neither can be had. Worked out anew at each call.
std::string application_directory();

} // namespace tw
