// What a power cut leaves of the store, what a file that shrinks while it
// is read leaves, and what a link planted at a store path gets. The store
// runs on a file system held in memory that cuts the power at its N-th call
// and then forgets what was not synced: file contents not synced are lost,
// and so are the entries of a directory made, removed or renamed since that
// directory was last synced. Every N of an update is tried.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>

#include "store/analytics_filter_store.h"
#include "store/calibration_store.h"
#include "store/store_file_system.h"
#include "harness/temp_dir.h"
#include "tests/support/capture.h"
#include "tests/support/store_files.h"

namespace {

struct PowerCut {};

class ForgetfulFileSystem : public StoreFileSystem {
 public:
  explicit ForgetfulFileSystem(int cutAtCall) : cutAt_(cutAtCall) {}

  // Syncs of files, or of directories, fail with EIO (and sync nothing).
  bool failFileSyncs = false;
  bool failDirectorySyncs = false;
  // A write takes at most this many bytes, as a write may.
  std::size_t writeAtMost = SIZE_MAX;

  // Puts a file in place as if it had been there, synced, for long.
  void plant(const std::string& path, const std::string& content) {
    auto inode = std::make_shared<Inode>(Inode{content, content});
    entries_[path] = inode;
    durable_[path] = inode;
  }
  // A client's file, written and never synced.
  void writeUnsynced(const std::string& path, const std::string& content) {
    entries_[path] = std::make_shared<Inode>(Inode{content, ""});
  }
  // The store after the power cut: the file at `path`, if it survived.
  std::optional<std::string> survivor(const std::string& path) const {
    auto entry = durable_.find(path);
    if (entry == durable_.end()) return std::nullopt;
    return entry->second->synced;
  }
  int calls() const { return calls_; }

  int openForReading(const std::string& path) override {
    call();
    auto entry = entries_.find(path);
    if (entry == entries_.end()) return fail(ENOENT);
    return open(entry->second);
  }
  int create(const std::string& path) override {
    call();
    if (entries_.count(path) != 0) return fail(EEXIST);
    auto inode = std::make_shared<Inode>();
    entries_[path] = inode;
    return open(inode);
  }
  int64_t size(int fd) override {
    call();
    return static_cast<int64_t>(open_.at(fd).inode->data.size());
  }
  ssize_t read(int fd, char* to, std::size_t count) override {
    call();
    Open& file = open_.at(fd);
    std::size_t n = std::min(count, file.inode->data.size() - file.position);
    std::copy_n(file.inode->data.data() + file.position, n, to);
    file.position += n;
    return static_cast<ssize_t>(n);
  }
  ssize_t write(int fd, const char* from, std::size_t count) override {
    call();
    count = std::min(count, writeAtMost);
    open_.at(fd).inode->data.append(from, count);
    return static_cast<ssize_t>(count);
  }
  int sync(int fd) override {
    call();
    if (failFileSyncs) return fail(EIO);
    open_.at(fd).inode->synced = open_.at(fd).inode->data;
    return 0;
  }
  int syncDirectory(const std::string& directory) override {
    call();
    if (failDirectorySyncs) return fail(EIO);
    auto inside = [&](const std::string& path) { return path.rfind(directory + "/", 0) == 0; };
    for (auto it = durable_.begin(); it != durable_.end();) it = inside(it->first) ? durable_.erase(it) : ++it;
    for (const auto& entry : entries_) {
      if (inside(entry.first)) durable_.insert(entry);
    }
    return 0;
  }
  int close(int fd) override {
    call();
    open_.erase(fd);
    return 0;
  }
  int unlink(const std::string& path) override {
    call();
    return entries_.erase(path) != 0 ? 0 : fail(ENOENT);
  }
  int rename(const std::string& from, const std::string& to) override {
    call();
    auto entry = entries_.find(from);
    if (entry == entries_.end()) return fail(ENOENT);
    entries_[to] = entry->second;
    entries_.erase(from);
    return 0;
  }

 private:
  struct Inode {
    std::string data;
    std::string synced;
  };
  struct Open {
    std::shared_ptr<Inode> inode;
    std::size_t position = 0;
  };

  void call() {
    if (++calls_ == cutAt_) throw PowerCut();
  }
  int fail(int error) {
    errno = error;
    return -1;
  }
  int open(std::shared_ptr<Inode> inode) {
    open_[nextFd_] = Open{std::move(inode)};
    return nextFd_++;
  }

  int cutAt_;
  int calls_ = 0;
  int nextFd_ = 3;
  std::map<std::string, std::shared_ptr<Inode>> entries_;
  std::map<std::string, std::shared_ptr<Inode>> durable_;
  std::map<int, Open> open_;
};

// Runs `update` on a fresh file system that cuts the power at each call in
// turn, and at none; `check` judges what survived and whether the update
// had reported success before the cut.
template <class Prepare, class Update, class Check>
void cutAtEveryCall(Prepare prepare, Update update, Check check) {
  for (int cut = 1;; ++cut) {
    SCOPED_TRACE("power cut at call " + std::to_string(cut));
    ForgetfulFileSystem files(cut);
    prepare(files);
    StoreFileSystem* previous = useStoreFileSystem(&files);
    SyslogCapture syslog;
    bool finished = false;
    try {
      update();
      finished = true;
    } catch (const PowerCut&) {
    }
    useStoreFileSystem(previous);
    check(files, syslog.take(), finished);
    if (finished) return;  // the power stayed on: every call has been tried
  }
}

const std::string kOldBlock = "old calibration";
const std::string kNewBlock = [] {
  std::string bytes;
  for (int i = 0; i < 1000; ++i) bytes += static_cast<char>('A' + i % 26);
  return bytes;
}();

TEST(DurabilityTest, ACalibrationUpdateLeavesTheOldFileOrTheWholeNewBlock) {
  const std::string path = CalibrationFilePath(1);
  const SyslogLine updated = info("UpdateCalibrationData:Updated " + path);
  for (bool hadFile : {true, false}) {
    SCOPED_TRACE(hadFile ? "replacing a file" : "the first file");
    byteArray block;
    block.assign(kNewBlock.data(), static_cast<uint32_t>(kNewBlock.size()));
    cutAtEveryCall(
        [&](ForgetfulFileSystem& files) {
          files.writeAtMost = 300;
          if (hadFile) files.plant(path, kOldBlock);
        },
        [&] { UpdateCalibrationData(1, block); },
        [&](const ForgetfulFileSystem& files, const std::vector<SyslogLine>& lines, bool finished) {
          std::optional<std::string> left = files.survivor(path);
          bool reported = std::find(lines.begin(), lines.end(), updated) != lines.end();
          EXPECT_EQ(reported, finished) << "reported as stored only when it is";
          if (reported) {
            EXPECT_EQ(left, kNewBlock);
          } else if (left) {
            EXPECT_TRUE(*left == kNewBlock || (hadFile && *left == kOldBlock)) << left->size() << " bytes left";
          }
        });
  }
}

TEST(DurabilityTest, AnInstalledFilterIsWholeBeforeTheNextMessageRuns) {
  const std::string incoming = "/etc/sysconfig/dravik/incoming/new.xml";
  const std::string stored = FilterFilePath(2);
  const std::string oldFilter = "<old/>", newFilter = "<new-filter/>";
  cutAtEveryCall(
      [&](ForgetfulFileSystem& files) {
        files.plant(stored, oldFilter);
        files.writeUnsynced(incoming, newFilter);
        pendingFilterFiles[2] = incoming;
      },
      [&] { SaveAnalyticsFilterFile(2, 0); },
      [&](const ForgetfulFileSystem& files, const std::vector<SyslogLine>& lines, bool finished) {
        std::optional<std::string> left = files.survivor(stored);
        if (finished) {
          EXPECT_EQ(lines, std::vector<SyslogLine>{info("Saving Analytics Filter To file for ch=2 FileName:: " + incoming)});
          EXPECT_EQ(left, newFilter);
        } else {
          EXPECT_TRUE(left == oldFilter || left == newFilter) << (left ? *left : "no file");
        }
      });
}

// A sync that fails is a failed write of a calibration block; it does not
// hold a filter's move back.
TEST(DurabilityTest, FailedSyncsAreFailedCalibrationWritesButFiltersAreStillMoved) {
  const std::string incoming = "/etc/sysconfig/dravik/incoming/new.xml";
  for (bool directory : {false, true}) {
    SCOPED_TRACE(directory ? "directory sync fails" : "file sync fails");
    ForgetfulFileSystem files(0);
    (directory ? files.failDirectorySyncs : files.failFileSyncs) = true;
    files.writeUnsynced(incoming, "<f/>");
    pendingFilterFiles[3] = incoming;
    StoreFileSystem* previous = useStoreFileSystem(&files);
    SyslogCapture syslog;
    byteArray block;
    block.assign("abc", 3);
    UpdateCalibrationData(0, block);
    SaveAnalyticsFilterFile(3, 0);
    useStoreFileSystem(previous);
    EXPECT_EQ(syslog.take(), (std::vector<SyslogLine>{info("UpdateCalibrationData:Updating " + CalibrationFilePath(0)),
                                                       err("UpdateCalibrationData:Data Write failed"),
                                                       info("Saving Analytics Filter To file for ch=3 FileName:: " +
                                                            incoming)}));
    EXPECT_GE(files.openForReading(FilterFilePath(3)), 0) << "moved into the store";
  }
}

// A file that shrinks between the look at its size and its read: the
// block's tail is zeros, never memory that was not read (here the memory of
// the block read just before).
TEST(DurabilityTest, AFileThatShrinksWhileItIsReadLeavesZeros) {
  class Shrinking : public ForgetfulFileSystem {
   public:
    using ForgetfulFileSystem::ForgetfulFileSystem;
    int64_t size(int) override { return 64; }
  } files(0);
  files.plant("/full", std::string(64, 'Z'));
  files.plant("/shrunk", "abc");
  StoreFileSystem* previous = useStoreFileSystem(&files);
  byteArray block;
  uint64_t size = 0;
  ReadCalibrationFile("/full", block, &size);
  EXPECT_EQ(ReadCalibrationFile("/shrunk", block, &size), CalibrationRead::read);
  useStoreFileSystem(previous);
  EXPECT_EQ(std::string(block.data, block.length), "abc" + std::string(61, '\0'));
}

// The real file system, in a directory of the test's own, with a link
// (symbolic or hard) to a file of someone else's planted at the calibration
// path just after the old file is removed: a new file is made only where
// nothing stands, so that file is never written.
TEST(DurabilityTest, ALinkPlantedWhereTheOldFileWasIsRefused) {
  class Planting : public StoreFileSystem {
   public:
    Planting(std::string dir, bool hard) : dir_(std::move(dir)), hard_(hard) {}
    int openForReading(const std::string& path) override { return real_.openForReading(at(path)); }
    int create(const std::string& path) override { return real_.create(at(path)); }
    int64_t size(int fd) override { return real_.size(fd); }
    ssize_t read(int fd, char* to, std::size_t n) override { return real_.read(fd, to, n); }
    ssize_t write(int fd, const char* from, std::size_t n) override { return real_.write(fd, from, n); }
    int sync(int fd) override { return real_.sync(fd); }
    int syncDirectory(const std::string&) override { return real_.syncDirectory(dir_); }
    int close(int fd) override { return real_.close(fd); }
    int unlink(const std::string& path) override {
      int result = real_.unlink(at(path));
      EXPECT_EQ((hard_ ? link : symlink)((dir_ + "/theirs").c_str(), at(path).c_str()), 0);
      return result;
    }
    int rename(const std::string& from, const std::string& to) override { return real_.rename(at(from), at(to)); }

   private:
    std::string at(const std::string& path) const { return dir_ + path.substr(path.rfind('/')); }
    StoreFileSystem& real_ = storeFileSystem();
    std::string dir_;
    bool hard_;
  };
  for (bool hard : {false, true}) {
    TempDir dir;
    writeFile(dir.file("theirs"), "keep");
    writeFile(dir.file("zekCalibrationDataCH1.bin"), kOldBlock);
    Planting files(dir.path(), hard);
    StoreFileSystem* previous = useStoreFileSystem(&files);
    SyslogCapture syslog;
    byteArray block;
    block.assign("new", 3);
    UpdateCalibrationData(1, block);
    useStoreFileSystem(previous);
    EXPECT_EQ(syslog.take(), (std::vector<SyslogLine>{info("UpdateCalibrationData:Updating " + CalibrationFilePath(1)),
                                                       err("UpdateCalibrationData:File open failed for File::" +
                                                           CalibrationFilePath(1))}))
        << (hard ? "hard link" : "symbolic link");
    EXPECT_EQ(readFile(dir.file("theirs")), "keep") << (hard ? "hard link" : "symbolic link");
  }
}

}  // namespace
