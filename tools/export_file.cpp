#include "export_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>

#include "environment.h"

namespace OvraCli {
namespace {

const char kPartialMark[] = ".partial-";
const std::size_t kPartialSuffixLength = 6;
// The kernel follows at most this many links in one path.
const int kMaxLinkHops = 40;

// The file that writing `file` writes: `file` itself or, through symbolic links, the file they lead to, which need
// not exist yet (a shell's redirection creates it too). "" with errno ELOOP for a loop of links.
std::string LinkTarget(const std::string &file)
{
    std::string path = file.find('/') == std::string::npos ? "./" + file : file;
    for (int hop = 0; hop < kMaxLinkHops; ++hop) {
        char target[PATH_MAX];
        const ssize_t length = readlink(path.c_str(), target, sizeof(target));
        if (length <= 0) {
            return path;  // not a link, or nothing there yet
        }
        const std::string next(target, static_cast<std::size_t>(length));
        path = next[0] == '/' ? next : DirName(path) + "/" + next;
    }
    errno = ELOOP;
    return "";
}

std::string BaseName(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

// Makes a rename in `directory` durable. File systems that cannot sync a directory say so with EINVAL.
bool SyncDirectory(const std::string &directory)
{
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool synced = fsync(fd) == 0 || errno == EINVAL;
    const int error = errno;
    close(fd);
    errno = error;
    return synced;
}

}  // namespace

ExportFile::~ExportFile()
{
    if (stream_ != nullptr) {
        std::fclose(stream_);
    }
    if (!partial_.empty()) {
        unlink(partial_.c_str());
    }
}

bool ExportFile::Open(const std::string &file)
{
    target_ = LinkTarget(file);
    if (target_.empty()) {
        return false;
    }
    struct stat existing {};
    const bool exists = stat(target_.c_str(), &existing) == 0;
    if (exists && S_ISDIR(existing.st_mode)) {
        errno = EISDIR;
        return false;
    }
    int fd = -1;
    if (exists && !S_ISREG(existing.st_mode)) {
        fd = open(target_.c_str(), O_WRONLY | O_CLOEXEC);
    } else {
        fd = CreatePartial();
        if (fd >= 0 && exists && fchmod(fd, existing.st_mode & 07777) != 0) {
            const int error = errno;
            close(fd);
            errno = error;
            return false;
        }
        RemoveStalePartials();
    }
    stream_ = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (stream_ == nullptr && fd >= 0) {
        close(fd);
    }
    return stream_ != nullptr;
}

// A new file beside the target, locked for as long as this export lives. Mode 0666 is what a shell's redirection
// asks for: the umask takes its share.
int ExportFile::CreatePartial()
{
    static const char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device seed;
    std::mt19937 random(seed());
    std::uniform_int_distribution<std::size_t> letter(0, sizeof(kLetters) - 2);
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string name = target_ + kPartialMark;
        for (std::size_t i = 0; i < kPartialSuffixLength; ++i) {
            name += kLetters[letter(random)];
        }
        const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd >= 0) {
            flock(fd, LOCK_EX);
            partial_ = name;
            return fd;
        }
        if (errno != EEXIST) {
            return -1;
        }
    }
    return -1;
}

// The partials of earlier exports of the same file that were killed: those that no export holds locked.
void ExportFile::RemoveStalePartials() const
{
    const std::string directory = DirName(target_);
    const std::string prefix = BaseName(target_) + kPartialMark;
    DIR *listing = opendir(directory.c_str());
    if (listing == nullptr) {
        return;
    }
    while (const dirent *entry = readdir(listing)) {
        const std::string name = entry->d_name;
        const std::string path = directory + "/" + name;
        if (name.size() != prefix.size() + kPartialSuffixLength || name.compare(0, prefix.size(), prefix) != 0 ||
            path == partial_) {
            continue;
        }
        const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) {
            unlink(path.c_str());
        }
        if (fd >= 0) {
            close(fd);
        }
    }
    closedir(listing);
}

// The data is synced before the rename and the folder after it: a crash then leaves the old file or the new one,
// whole. The rename comes while the partial is still locked, so that no other export takes it for a stale one.
bool ExportFile::Commit()
{
    const bool inPlace = partial_.empty();
    bool done = std::fflush(stream_) == 0 && std::ferror(stream_) == 0 &&
                (inPlace || (fsync(fileno(stream_)) == 0 && rename(partial_.c_str(), target_.c_str()) == 0));
    int error = errno;
    if (done) {
        partial_.clear();
    }
    if (std::fclose(stream_) != 0 && done) {
        done = false;
        error = errno;
    }
    stream_ = nullptr;
    if (done && !inPlace && !SyncDirectory(DirName(target_))) {
        done = false;
        error = errno;
    }
    errno = error;
    return done;
}

}  // namespace OvraCli
