// A file system for the cache tests: it passes every call on to the native
// file system, records what it was asked to touch, and can
//   - fail InitDirToUse, and
//   - hold back the completion of InitDirToUse, AsyncDownloadFile and
//     WriteAndCloseAsync until PumpCallbacks() runs, as a file system that
//     works on another thread would.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "oru/file_system.h"

namespace oru::test {

class WrappingFileSystem : public FileSystem {
public:
  bool failInitDir = false;
  bool deferCallbacks = false;
  // "Unlink <path>", "Fopen <path> <mode>", ... in call order.
  std::vector<std::string> calls;
  std::shared_ptr<FileSystem> inner = CreateNativeFileSystem();

  size_t Pending() const { return m_pending.size(); }
  // Counts the calls that touched files (anything but the separator and
  // pumping).
  size_t FileCalls() const { return calls.size(); }

  void InitDirToUse(char const* name, std::shared_ptr<DirCallback> const& cb) override {
    calls.push_back(std::string("InitDirToUse ") + name);
    std::string dir;
    bool ok = false;
    if (!failInitDir) {
      struct Capture : DirCallback {
        bool ok = false;
        void OnDirReady(bool success) override { ok = success; }
      };
      auto capture = std::make_shared<Capture>();
      inner->InitDirToUse(name, capture);
      ok = capture->ok;
      dir = capture->dir;
    }
    Complete([cb, ok, dir] {
      if (ok) cb->dir = dir;
      cb->OnDirReady(ok);
    });
  }
  void PumpCallbacks() override {
    ++pumps;
    std::deque<std::function<void()>> ready;
    ready.swap(m_pending);
    for (auto& f : ready) f();
  }
  void Sync() override { calls.push_back("Sync"); }
  void AsyncDownloadFile(char const* url, char const* localPath,
                         std::shared_ptr<Callback> const& cb) override {
    calls.push_back(std::string("AsyncDownloadFile ") + url + " " + localPath);
    Complete([cb] { cb->OnComplete(true); });
  }
  void FilesInDir(char const* dir, std::unordered_set<std::string>& out) override {
    calls.push_back(std::string("FilesInDir ") + dir);
    inner->FilesInDir(dir, out);
  }
  int Unlink(char const* path) override {
    calls.push_back(std::string("Unlink ") + path);
    return inner->Unlink(path);
  }
  std::shared_ptr<DataSource> GetDS(char const* path) override {
    calls.push_back(std::string("GetDS ") + path);
    return inner->GetDS(path);
  }
  std::shared_ptr<FSFilePointer> Fopen(char const* path, char const* mode) override {
    calls.push_back(std::string("Fopen ") + path + " " + mode);
    return inner->Fopen(path, mode);
  }
  void Fclose(std::shared_ptr<FSFilePointer> const& fp) override { inner->Fclose(fp); }
  void Fwrite(void const* data, uint64_t size, std::shared_ptr<FSFilePointer> const& fp) override {
    inner->Fwrite(data, size, fp);
  }
  bool Stat(char const* path, FileStat& out) override {
    calls.push_back(std::string("Stat ") + path);
    return inner->Stat(path, out);
  }
  uint64_t TouchFile(char const* path) override { return inner->TouchFile(path); }
  std::shared_ptr<FSFilePointer> CreateAndOpenTempFile(char const* dir, char const* ignored,
                                                       int& counter,
                                                       std::string& outPath) override {
    calls.push_back(std::string("CreateAndOpenTempFile ") + dir);
    return inner->CreateAndOpenTempFile(dir, ignored, counter, outPath);
  }
  void WriteAndCloseAsync(std::shared_ptr<DataSource> const& src,
                          std::shared_ptr<FSFilePointer> const& fp,
                          std::shared_ptr<Callback> const& cb) override {
    calls.push_back("WriteAndCloseAsync");
    struct Capture : Callback {
      bool ok = false;
      void OnComplete(bool success) override { ok = success; }
    };
    auto capture = std::make_shared<Capture>();
    inner->WriteAndCloseAsync(src, fp, capture);
    const bool ok = capture->ok;
    Complete([cb, ok] { cb->OnComplete(ok); });
  }
  bool Write(void* data, uint64_t size, std::shared_ptr<FSFilePointer> const& fp) override {
    return inner->Write(data, size, fp);
  }
  bool Write(std::string&& text, std::shared_ptr<FSFilePointer> const& fp) override {
    return inner->Write(std::move(text), fp);
  }
  std::string ReadLine(std::shared_ptr<FSFilePointer> const& fp) override {
    return inner->ReadLine(fp);
  }
  char GetDirSeparator() override { return inner->GetDirSeparator(); }
  bool ReplaceFile(char const* from, char const* to) override {
    calls.push_back(std::string("ReplaceFile ") + from + " " + to);
    return replaceSupported && inner->ReplaceFile(from, to);
  }

  bool replaceSupported = true;
  int pumps = 0;

private:
  void Complete(std::function<void()> f) {
    if (deferCallbacks) {
      m_pending.push_back(std::move(f));
    } else {
      f();
    }
  }
  std::deque<std::function<void()>> m_pending;
};

}  // namespace oru::test
