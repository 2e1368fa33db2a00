// "part.idx", the index of the open message/partial sets of a directory,
// and the fragment files it stands for. Both extractions store through
// here, so a set begun by one can be finished by the other.
//
// The index is never rewritten in place: its next state goes to "part.id$",
// is flushed to disk and renamed over "part.idx" in one step, and then the
// directory is flushed. A process killed at any moment leaves the old index
// or the new one; a "part.id$" left behind is replaced, never read.
// "part.idx" stays locked from its first read to the rename, so a second
// extraction in the same directory fails cleanly instead of losing records.
#include <algorithm>
#include <climits>
#include <memory>
#include <optional>

#include "directory/directory.h"

namespace tw {

namespace {

constexpr std::size_t kRecordsPerBlock = 712; // about 64 KiB of records per read
constexpr std::size_t kCopyBlock = 64 * 1024;
// An index replaced or removed between our open and our lock is opened again.
constexpr int kOpenAttempts = 8;
// The count saturates where a reader taking it for a signed value still can.
constexpr uint32_t kMaxReceived = INT32_MAX;
// A fragment number has at most 9 digits; 10 leave room for a corrupt one.
constexpr std::size_t kMaxNumberDigits = 10;

uint32_t get_le32(const unsigned char *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void put_le32(unsigned char *p, uint32_t value) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(value >> (8 * i));
}

void decode_record(const unsigned char *raw, mime_fragment_entry &entry) {
    std::memcpy(entry.id, raw, kFragmentIdWidth);
    entry.received = get_le32(raw + 80);
    entry.total = get_le32(raw + 84);
    entry.set_number = get_le32(raw + 88);
}

void encode_record(const mime_fragment_entry &entry, unsigned char *raw) {
    std::memcpy(raw, entry.id, kFragmentIdWidth);
    put_le32(raw + 80, entry.received);
    put_le32(raw + 84, entry.total);
    put_le32(raw + 88, entry.set_number);
}

// Reads the records of an open index in large blocks. A short record at
// the end, or a failed read, ends the index.
class RecordReader {
public:
    explicit RecordReader(File &file)
        : file_(file), block_(new unsigned char[kRecordsPerBlock * kFragmentRecordSize]) {}

    bool next(mime_fragment_entry &entry) {
        if (at_ == count_) {
            const long long got = file_.read_full(block_.get(), kRecordsPerBlock * kFragmentRecordSize);
            count_ = got > 0 ? static_cast<std::size_t>(got) / kFragmentRecordSize : 0;
            at_ = 0;
            if (count_ == 0)
                return false;
        }
        decode_record(block_.get() + at_++ * kFragmentRecordSize, entry);
        return true;
    }

private:
    File &file_;
    std::unique_ptr<unsigned char[]> block_;
    std::size_t at_ = 0, count_ = 0;
};

// One rewrite of the index of a directory, from the lock to the rename.
class IndexUpdate {
public:
    explicit IndexUpdate(const std::string &directory)
        : directory_(directory), index_path_(directory + kFragmentIndex),
          next_path_(directory + kFragmentIndexNext) {}
    IndexUpdate(const IndexUpdate &) = delete;
    IndexUpdate &operator=(const IndexUpdate &) = delete;

    // Locks "part.idx" (made empty if there is none) and creates
    // "part.id$" afresh. False when the index is another's for now, is a
    // link, or either file cannot be had.
    bool open() {
        for (int attempt = 0; attempt < kOpenAttempts && !index_; ++attempt) {
            index_ = File::open_or_create_locked(index_path_);
            if (!index_)
                return false;
            if (!index_.is_at(index_path_))
                index_.close(); // replaced while we waited for its lock
        }
        if (!index_)
            return false;
        // Whatever stands at "part.id$" is left over from a failed or killed
        // run, or planted: it is removed, never read, never written through.
        remove_file(next_path_);
        next_ = File::create_new(next_path_);
        if (!next_) {
            abandon();
            return false;
        }
        reader_ = std::make_unique<RecordReader>(index_);
        writer_ = std::make_unique<BufferedWriter>(next_);
        return true;
    }

    bool read(mime_fragment_entry &entry) { return reader_->next(entry); }

    bool write(const mime_fragment_entry &entry) {
        unsigned char raw[kFragmentRecordSize];
        encode_record(entry, raw);
        ++written_;
        return writer_->write(reinterpret_cast<const char *>(raw), sizeof raw);
    }

    // "part.id$" complete and on disk. A failed write, flush or close of it
    // is a failed record write.
    bool finish_next() {
        const bool flushed = writer_->flush();
        writer_.reset();
        return next_.sync_and_close() && flushed;
    }

    // The new index replaces the old one. With no record left there is no
    // index at all.
    bool commit() {
        if (mime_fragment_index_hook != nullptr)
            mime_fragment_index_hook();
        if (written_ == 0) {
            // The index goes first: a run killed between the two removals
            // leaves no index and a stale "part.id$", which is never read.
            if (!remove_file(index_path_) && path_exists(index_path_))
                return false;
            remove_file(next_path_);
        } else if (replace_file(next_path_, index_path_) != 0) {
            return false;
        }
        sync_directory(directory_);
        index_.close();
        return true;
    }

    // The old index stays as it was; "part.id$" stays beside it. An index
    // that only this update created goes again.
    void abandon() {
        writer_.reset();
        next_.close();
        if (index_ && index_.size() == 0)
            remove_file(index_path_);
        index_.close();
    }

private:
    const std::string &directory_;
    const std::string index_path_, next_path_;
    File index_, next_;
    std::unique_ptr<RecordReader> reader_;
    std::unique_ptr<BufferedWriter> writer_;
    std::size_t written_ = 0;
};

// The number of a fragment file name of the set whose stem and dot are
// `prefix`: digits without a leading zero.
std::optional<uint32_t> fragment_number_of(std::string_view name, std::string_view prefix) {
    if (!name.starts_with(prefix))
        return std::nullopt;
    const std::string_view digits = name.substr(prefix.size());
    if (digits.empty() || digits.size() > kMaxNumberDigits || digits[0] == '0')
        return std::nullopt;
    uint64_t n = 0;
    for (char c : digits) {
        if (c < '0' || c > '9')
            return std::nullopt;
        n = n * 10 + static_cast<uint64_t>(c - '0');
    }
    if (n > UINT32_MAX)
        return std::nullopt;
    return static_cast<uint32_t>(n);
}

} // namespace

std::string_view mime_fragment_id(const mime_fragment_entry &entry) {
    return field(entry.id).substr(0, kFragmentIdLength);
}

std::string mime_fragment_path(const std::string &directory, uint32_t set_number,
                               uint32_t fragment_number) {
    return directory + numbered_name(set_number) + "." + std::to_string(fragment_number);
}

uint32_t mime_next_fragment_set(const std::string &directory) {
    NumberedNames names;
    const unsigned long number = names.lowest_free(directory);
    return number <= UINT32_MAX ? static_cast<uint32_t>(number) : 0;
}

int32_t mime_copy_fragment_file(const std::string &directory, const std::string &source_path,
                                uint32_t set_number, int32_t fragment_number) {
    File source = File::open(source_path, OpenMode::ReadShared);
    if (!source)
        return 0;
    const std::string target_path =
        mime_fragment_path(directory, set_number, static_cast<uint32_t>(std::max(fragment_number, 0)));
    // A repeated fragment replaces the file of its first arrival; a link
    // planted under the name goes, and nothing is written through it.
    remove_file(target_path);
    File target = File::create_new(target_path);
    if (!target)
        return 0;
    std::unique_ptr<char[]> block(new char[kCopyBlock]);
    for (;;) {
        const long long got = source.read_full(block.get(), kCopyBlock);
        if (got <= 0)
            break;
        if (!target.write_all(block.get(), static_cast<std::size_t>(got))) {
            target.close();
            remove_file(target_path);
            return 0;
        }
    }
    return 1;
}

std::vector<uint32_t> mime_fragment_numbers(const std::string &directory,
                                            const mime_fragment_entry &entry) {
    const std::string prefix = numbered_name(entry.set_number) + ".";
    std::vector<uint32_t> numbers;
    scan_directory(directory, [&](std::string_view name) {
        if (const auto n = fragment_number_of(name, prefix); n && *n <= entry.total)
            numbers.push_back(*n);
    });
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

void mime_remove_fragments(const std::string &directory, const mime_fragment_entry &entry) {
    for (uint32_t number : mime_fragment_numbers(directory, entry))
        remove_file(mime_fragment_path(directory, entry.set_number, number));
}

FragmentStoreResult mime_store_fragment_entry(const std::string &directory,
                                              const std::string &message_path,
                                              const FragmentArrival &fragment,
                                              const FragmentJoin &join) {
    FragmentStoreResult result;
    IndexUpdate index(directory);
    if (!index.open()) {
        result.index_failed = true;
        return result;
    }
    const std::string_view id = fragment.id.substr(0, kFragmentIdLength);
    const uint32_t total = static_cast<uint32_t>(std::max(fragment.total, 0));

    // Only the first record of an id is its set; a corrupt index that
    // names an id twice keeps the second as it is.
    bool known = false, written_behind = false, ok = true;
    TempFile fresh_file; // the first file of a new set, until the index has its record
    std::optional<mime_fragment_entry> complete;
    mime_fragment_entry entry;
    while (ok && index.read(entry)) {
        if (!known && equals_nocase(mime_fragment_id(entry), id)) {
            known = true;
            // A fragment file that cannot be written is counted all the
            // same: the join then fails at the missing number.
            mime_copy_fragment_file(directory, message_path, entry.set_number, fragment.number);
            if (entry.received < kMaxReceived)
                ++entry.received;
            if (entry.total != 0 && entry.received == entry.total) {
                complete = entry; // joined below, and not carried over
                continue;
            }
            // After the test: a total that first comes with the last missing
            // fragment does not complete the set.
            if (entry.total == 0)
                entry.total = total;
        } else if (complete) {
            written_behind = true;
        }
        ok = index.write(entry);
    }
    if (ok && !known) {
        // A new set is not tested for completeness: a set of one stays open.
        mime_fragment_entry fresh;
        fresh.set_number = mime_next_fragment_set(directory);
        fresh.received = 1;
        fresh.total = total;
        copy_bounded(fresh.id, sizeof fresh.id, id);
        ok = fresh.set_number != 0 && index.write(fresh);
        if (ok) {
            mime_copy_fragment_file(directory, message_path, fresh.set_number, fragment.number);
            fresh_file.reset(mime_fragment_path(directory, fresh.set_number,
                                                static_cast<uint32_t>(std::max(fragment.number, 0))));
        }
    }
    // Every record is on disk before a join removes anything.
    if (!index.finish_next() || !ok) {
        index.abandon(); // and the file of a set that the old index never had goes
        result.index_failed = true;
        return result;
    }
    fresh_file.keep();
    result.status = MIME_OK;
    if (complete) {
        result.completed = true;
        result.joined_last = !written_behind;
        const int32_t joined = join(*complete);
        // A failed join behind which no record stands keeps the old index,
        // the set's record in it; a later record hides the failure.
        if (result.joined_last)
            result.status = joined;
    }
    if (result.status == 0) {
        index.abandon();
        return result;
    }
    if (!index.commit()) {
        index.abandon();
        result.index_failed = true;
        result.status = 0;
    }
    return result;
}

std::vector<mime_fragment_entry> mime_read_fragment_index(const std::string &directory) {
    std::vector<mime_fragment_entry> entries;
    File file = File::open(directory + kFragmentIndex, OpenMode::ReadShared, true);
    if (!file)
        return entries;
    RecordReader reader(file);
    mime_fragment_entry entry;
    while (reader.next(entry))
        entries.push_back(entry);
    return entries;
}

} // namespace tw
