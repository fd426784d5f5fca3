// The file that an export writes: never seen incomplete under its own name.
#ifndef OVRA_KB_TOOLS_EXPORT_FILE_H
#define OVRA_KB_TOOLS_EXPORT_FILE_H

#include <cstdio>
#include <string>

namespace OvraCli {

// A regular file is written under a temporary name beside it (FILE.partial-XXXXXX, locked while in use), synced,
// renamed over it and its folder synced, so that an export ended in any way (Ctrl-C, a failure, SIGKILL, a crash)
// leaves FILE as it was or complete. The new file gets the mode that the umask gives a new file, and a file that
// existed keeps its mode. A symbolic link is followed: its target is written and the link stays a link. The
// partials of earlier exports of the same file that were killed are removed. A pipe or a device is written in
// place, as a stream.
class ExportFile {
  public:
    ExportFile() = default;
    ~ExportFile();
    ExportFile(const ExportFile &) = delete;
    ExportFile &operator=(const ExportFile &) = delete;

    // Opens the file for `file`; false, with errno set, when it cannot be written.
    bool Open(const std::string &file);
    FILE *Stream() const { return stream_; }
    // Makes what was written the file's content; false, with errno set, when it could not. Without a call the
    // temporary file goes and the file stays as it was.
    bool Commit();

  private:
    int CreatePartial();
    void RemoveStalePartials() const;

    std::string target_;
    std::string partial_;  // empty when the target is written in place
    FILE *stream_ = nullptr;
};

}  // namespace OvraCli

#endif  // OVRA_KB_TOOLS_EXPORT_FILE_H
