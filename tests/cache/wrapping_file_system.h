// A file system for the cache tests: the native one, which also records the
// calls that begin every way the cache can touch a file (Stat, Unlink,
// CreateAndOpenTempFile, ReplaceFile, the asynchronous ones and Sync) and can
//   - fail InitDirToUse,
//   - refuse ReplaceFile, as file systems written before it existed do, and
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

#ifdef _WIN32
using NativeFileSystem = WinFileSystem;
#else
using NativeFileSystem = PosixFileSystem;
#endif

class WrappingFileSystem : public NativeFileSystem {
public:
  using Base = NativeFileSystem;
  bool failInitDir = false, deferCallbacks = false, replaceSupported = true;
  int pumps = 0;
  // "InitDirToUse <name>", "Stat", "Unlink", ... in call order.
  std::vector<std::string> calls;

  size_t Pending() const { return m_pending.size(); }

  void InitDirToUse(char const* name, std::shared_ptr<DirCallback> const& cb) override {
    calls.push_back(std::string("InitDirToUse ") + name);
    auto got = std::make_shared<Outcome>();
    if (!failInitDir) Base::InitDirToUse(name, got);
    Complete([cb, got] { cb->dir = got->dir, cb->OnDirReady(got->ok); });
  }
  void AsyncDownloadFile(char const*, char const*, std::shared_ptr<Callback> const& cb) override {
    Complete([cb] { cb->OnComplete(true); }, "AsyncDownloadFile");
  }
  void WriteAndCloseAsync(std::shared_ptr<DataSource> const& src,
                          std::shared_ptr<FSFilePointer> const& fp,
                          std::shared_ptr<Callback> const& cb) override {
    auto got = std::make_shared<Outcome>();
    Base::WriteAndCloseAsync(src, fp, got);
    Complete([cb, got] { cb->OnComplete(got->ok); }, "WriteAndCloseAsync");
  }
  void PumpCallbacks() override {
    ++pumps;
    std::deque<std::function<void()>> ready;
    ready.swap(m_pending);
    for (auto& f : ready) f();
  }
  bool ReplaceFile(char const* from, char const* to) override {
    return calls.push_back("ReplaceFile"), replaceSupported && Base::ReplaceFile(from, to);
  }
  // Recorded only. The cache reads, lists and opens files only after one of
  // these (or a completion above), so they need no record of their own.
  void Sync() override { calls.push_back("Sync"); }
  int Unlink(char const* path) override { return calls.push_back("Unlink"), Base::Unlink(path); }
  bool Stat(char const* path, FileStat& out) override {
    return calls.push_back("Stat"), Base::Stat(path, out);
  }
  std::shared_ptr<FSFilePointer> CreateAndOpenTempFile(char const* dir, char const* ignored,
                                                       int& counter, std::string& path) override {
    calls.push_back("CreateAndOpenTempFile");
    return Base::CreateAndOpenTempFile(dir, ignored, counter, path);
  }

private:
  struct Outcome : Callback, DirCallback {
    bool ok = false;
    void OnComplete(bool success) override { ok = success; }
    void OnDirReady(bool success) override { ok = success; }
  };
  void Complete(std::function<void()> f, const char* what = nullptr) {
    if (what) calls.push_back(what);
    deferCallbacks ? m_pending.push_back(std::move(f)) : f();
  }
  std::deque<std::function<void()>> m_pending;
};

}  // namespace oru::test
