// Files, directories and dynamic libraries as the system knows them.
//
// Paths go to the system as they stand; what a path means as text is the business of the rooms
// above. Unless an operation says otherwise it gives a negative error number (`-errno`) when the
// system refuses, and 0 or a count or descriptor when it doesn't. A null path is refused like a
// missing file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace platform {

enum class FileKind : std::uint8_t { file, directory, link, other };

struct FileStatus {
  FileKind kind = FileKind::other;
  std::int64_t size = 0;                  ///< bytes
  unsigned mode = 0;                      ///< permission bits
  std::int64_t modifiedMilliseconds = 0;  ///< since 1970 in UTC
  std::uint64_t device = 0, inode = 0;    ///< together they tell whether two names are one file
  bool isOwn = false;                     ///< belongs to the user of this process
  bool isRoots = false;                   ///< belongs to root
};

/// Flags of openFile, to be combined with `|`.
enum OpenFlag : unsigned {
  openRead = 1,
  openWrite = 2,
  openAppend = 4,
  openCreate = 8,
  openExclusive = 16,  ///< with openCreate: fails if the file exists
  openTruncate = 32,
  openOwn =
      64,  ///< fails with EPERM or ELOOP unless it is a regular file of this user, and no link
};

/// Bits of an access test; a test of 0 asks only whether the file exists.
enum AccessBit : int { accessExecute = 1, accessWrite = 2, accessRead = 4 };

/// Writes all of `count` bytes, going on after interrupts and short writes. Gives the count
/// written, which is short only if the system refused after a part; with nothing written, the
/// error.
long writeDescriptor(int descriptor, const void* bytes, unsigned long count);
/// One read of at most `count` bytes; 0 at the end.
long readDescriptor(int descriptor, void* bytes, unsigned long count);

/// A descriptor that children don't inherit. `mode` is used for a file that is created.
int openFile(const char* path, unsigned flags, unsigned mode);
/// A stream that owns the descriptor from now on, for a mode of the standard library that suits it.
/// Null, with `errno` set and the descriptor closed, if there is none to be had.
std::FILE* streamOn(int descriptor, const char* mode);
/// Closes a descriptor that is no socket: 0 or the error.
int closeDescriptor(int descriptor);
int fileStatus(const char* path, FileStatus& status);
/// The same, but a symbolic link itself is described, not what it leads to.
int linkStatus(const char* path, FileStatus& status);
int testAccess(const char* path, int bits);
int changeDirectory(const char* path);
/// A descriptor of the working directory, by which enterDirectory gets back there whatever has
/// become of its name. Children don't inherit it.
int openWorkingDirectory();
int enterDirectory(int descriptor);
int removeFile(const char* path);
int renameFile(const char* from, const char* to);
int changeMode(const char* path, unsigned mode);
/// Sets the modification time to the present time.
int touchFile(const char* path);
int makeDirectory(const char* path, unsigned mode);
int removeDirectory(const char* path);
/// The working directory, in a buffer of `size` bytes, closed by a zero.
int workingDirectory(char* buffer, unsigned long size);
/// Bytes that this user may still write on the volume of `path`, or an error.
std::int64_t freeDiskSpace(const char* path);
/// The absolute name of a file without links, "." and "..". If it can't be had, `resolved` is the
/// place where following the path stopped.
int resolvePath(const char* path, std::string& resolved);
/// The type name of the file system that holds `path`; empty if it can't be asked.
std::string fileSystemName(const char* path);

/// Reads the names of one directory, in the system's order, "." and ".." included.
class DirectoryReader {
 public:
  DirectoryReader() = default;
  ~DirectoryReader();
  DirectoryReader(const DirectoryReader&) = delete;
  DirectoryReader& operator=(const DirectoryReader&) = delete;

  /// Opens a directory, closing the one before.
  int open(const char* path);
  /// The next name, valid until the next call; null at the end.
  const char* next();
  /// What is known of it without asking: a link, or a file system that doesn't tell, is unknown.
  enum class Kind { unknown, directory, other };
  Kind kind() const { return kind_; }
  void close();

 private:
  void* stream_ = nullptr;
  Kind kind_ = Kind::unknown;
};

/// Loads a dynamic library; null if it can't be. It stays loaded until the process ends.
void* loadLibrary(const char* path);
/// The address of a symbol; null if the library lacks it.
void* librarySymbol(void* library, const char* name);

}  // namespace platform
