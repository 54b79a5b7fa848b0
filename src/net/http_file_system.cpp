// HttpFileSystem: libcurl's multi interface on one worker thread. Download()
// queues a job; the worker starts up to maxParallel of them, writes each body
// to a TempFile and, when a transfer ends, queues its completion (and, while
// it runs, its progress) for PumpCallbacks on the caller's thread.
#include "oru/http_file_system.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <thread>
#include <utility>

#include "net/temp_file.h"

namespace oru {

namespace {

using Clock = std::chrono::steady_clock;
// Progress of one transfer is queued at most this often.
constexpr auto PROGRESS_INTERVAL = std::chrono::milliseconds(250);
// The worker looks at its queue at least this often, even without a wake-up.
constexpr int POLL_MS = 100;

bool StartsWithNoCase(std::string const& text, char const* prefix) {
  const size_t n = std::strlen(prefix);
  if (text.size() < n) return false;
  for (size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) return false;
  }
  return true;
}

bool IsHttpUrl(std::string const& url) {
  return StartsWithNoCase(url, "http://") || StartsWithNoCase(url, "https://");
}

std::string Trim(std::string text) {
  auto space = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && space(text.back())) text.pop_back();
  size_t start = 0;
  while (start < text.size() && space(text[start])) ++start;
  return text.substr(start);
}

void GlobalInitOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

// ---- one transfer ------------------------------------------------------------

struct Job {
  std::string url, localPath, ifNoneMatch;
  std::function<void(HttpResult const&)> done;

  // Worker thread only, from here on.
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  curl_slist* connectTo = nullptr;
  char errorText[CURL_ERROR_SIZE] = {};
  net::TempFile temp;
  uint64_t maxBody = 0;
  uint64_t received = 0;
  uint64_t reported = 0;
  Clock::time_point lastReport{};
  std::string etag;
  bool tooLarge = false;
  bool writeFailed = false;

  ~Job() {
    if (easy != nullptr) curl_easy_cleanup(easy);
    if (headers != nullptr) curl_slist_free_all(headers);
    if (connectTo != nullptr) curl_slist_free_all(connectTo);
  }

  long Status() const {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    return status;
  }

  // The declared body size of the current response; 0 when not declared.
  uint64_t DeclaredSize() const {
    curl_off_t length = -1;
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    return length > 0 ? static_cast<uint64_t>(length) : 0;
  }

  static size_t OnBody(char* data, size_t, size_t size, void* self) {
    auto& job = *static_cast<Job*>(self);
    const long status = job.Status();
    // Only a 2xx body is kept; the text of an error page is dropped.
    if (status < 200 || status > 299) return size;
    if (job.received + size > job.maxBody || job.DeclaredSize() > job.maxBody) {
      job.tooLarge = true;
      return 0;  // ends the transfer with CURLE_WRITE_ERROR
    }
    if (!job.temp.Write(data, size)) {
      job.writeFailed = true;
      return 0;
    }
    job.received += size;
    return size;
  }

  static size_t OnHeader(char* data, size_t, size_t size, void* self) {
    auto& job = *static_cast<Job*>(self);
    const std::string line(data, size);
    // Each response of a redirect chain starts with its status line; only
    // the last response's ETag counts.
    if (StartsWithNoCase(line, "http/")) job.etag.clear();
    if (StartsWithNoCase(line, "etag:")) job.etag = Trim(line.substr(5));
    return size;
  }
};

// ---- the object's insides -------------------------------------------------------

class ORU_LOCAL HttpFileSystem::Impl {
public:
  Impl(HttpOptions o, std::shared_ptr<FileSystem> l) : options(std::move(o)), local(std::move(l)) {
    if (options.maxParallel == 0) options.maxParallel = 1;
    multi = curl_multi_init();
    worker = std::thread([this] { Run(); });
  }

  ~Impl() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
    }
    curl_multi_wakeup(multi);
    worker.join();
    curl_multi_cleanup(multi);
  }

  void Queue(std::unique_ptr<Job> job) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      queued.push_back(std::move(job));
      ++active;
    }
    curl_multi_wakeup(multi);
  }

  // Queues `fn` for the next PumpCallbacks.
  void Post(std::function<void()> fn) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      ready.push_back(std::move(fn));
    }
    readyChanged.notify_all();
  }

  void Pump() {
    local->PumpCallbacks();
    std::deque<std::function<void()>> batch;
    {
      std::lock_guard<std::mutex> lock(mutex);
      batch.swap(ready);
    }
    // Only locals from here: a callback may drop the last owner of `this`.
    for (auto& fn : batch) {
      fn();
      fn = nullptr;
    }
  }

  bool WaitIdle(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
      Pump();
      std::unique_lock<std::mutex> lock(mutex);
      if (active == 0 && ready.empty()) return true;
      const auto now = Clock::now();
      if (now >= deadline) return false;
      readyChanged.wait_until(lock, std::min(deadline, now + std::chrono::milliseconds(50)),
                              [this] { return !ready.empty(); });
    }
  }

  HttpOptions options;
  std::shared_ptr<FileSystem> local;

private:
  void Run() {
    std::list<std::unique_ptr<Job>> running;
    for (;;) {
      std::deque<std::unique_ptr<Job>> starting;
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping) break;
        while (!queued.empty() && running.size() + starting.size() < options.maxParallel) {
          starting.push_back(std::move(queued.front()));
          queued.pop_front();
        }
      }
      for (auto& job : starting) {
        if (Start(*job)) {
          running.push_back(std::move(job));
        } else {
          Finish(*job, HttpResult{false, false, 0, "", job->temp.Error()});
        }
      }
      int stillRunning = 0;
      curl_multi_perform(multi, &stillRunning);
      int left = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi, &left)) {
        if (msg->msg != CURLMSG_DONE) continue;
        auto it = std::find_if(running.begin(), running.end(),
                               [msg](auto const& job) { return job->easy == msg->easy_handle; });
        if (it == running.end()) continue;
        curl_multi_remove_handle(multi, msg->easy_handle);
        Finish(**it, Outcome(**it, msg->data.result));
        running.erase(it);
      }
      for (auto& job : running) ReportProgress(*job, false);
      curl_multi_poll(multi, nullptr, 0, POLL_MS, nullptr);
    }
    // Cancelled: every Job removes its temporary file as it goes.
    for (auto& job : running) curl_multi_remove_handle(multi, job->easy);
  }

  bool Start(Job& job) {
    if (!job.temp.Create(job.localPath)) return false;
    job.maxBody = options.maxBodyBytes;
    job.easy = curl_easy_init();
    CURL* e = job.easy;
    curl_easy_setopt(e, CURLOPT_URL, job.url.c_str());
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(e, CURLOPT_MAXREDIRS, options.maxRedirects);
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(options.timeout.count()));
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, job.errorText);
    // A declared size over the limit fails before the body is read.
    curl_easy_setopt(e, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(job.maxBody));
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &Job::OnBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &job);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &Job::OnHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, &job);
    if (!job.ifNoneMatch.empty()) {
      job.headers = curl_slist_append(nullptr, ("If-None-Match: " + job.ifNoneMatch).c_str());
      curl_easy_setopt(e, CURLOPT_HTTPHEADER, job.headers);
    }
    for (auto const& entry : options.connectTo) {
      job.connectTo = curl_slist_append(job.connectTo, entry.c_str());
    }
    if (job.connectTo != nullptr) curl_easy_setopt(e, CURLOPT_CONNECT_TO, job.connectTo);
    curl_multi_add_handle(multi, e);
    return true;
  }

  HttpResult Outcome(Job& job, CURLcode code) {
    HttpResult r;
    r.status = job.Status();
    r.etag = job.etag;
    if (job.tooLarge || code == CURLE_FILESIZE_EXCEEDED) {
      r.reason = "body larger than " + std::to_string(job.maxBody) + " bytes";
    } else if (job.writeFailed) {
      r.reason = job.temp.Error();
    } else if (code != CURLE_OK) {
      r.reason = Reason(job, code);
    } else if (r.status == 304) {
      r.success = r.notModified = true;
    } else if (r.status < 200 || r.status > 299) {
      r.reason = "HTTP " + std::to_string(r.status);
    } else if (!job.temp.Commit(job.localPath)) {
      r.reason = job.temp.Error();
    } else {
      r.success = true;
      ReportProgress(job, true);
    }
    return r;
  }

  std::string Reason(Job const& job, CURLcode code) const {
    switch (code) {
      case CURLE_OPERATION_TIMEDOUT:
        return "timed out after " + std::to_string(options.timeout.count()) + " ms";
      case CURLE_TOO_MANY_REDIRECTS:
        return "too many redirects";
      case CURLE_PARTIAL_FILE:
      case CURLE_RECV_ERROR:
        return "transfer cut short";
      case CURLE_COULDNT_CONNECT: {
        long osError = 0;
        curl_easy_getinfo(job.easy, CURLINFO_OS_ERRNO, &osError);
        if (osError == ECONNREFUSED) return "connection refused";
        break;
      }
      case CURLE_GOT_NOTHING:
        return "empty reply from server";
      default:
        break;
    }
    std::string text = curl_easy_strerror(code);
    if (job.errorText[0] != '\0') text += std::string(": ") + job.errorText;
    return text;
  }

  void ReportProgress(Job& job, bool last) {
    if (!options.progress || (!last && job.received == job.reported)) return;
    const auto now = Clock::now();
    if (!last && now - job.lastReport < PROGRESS_INTERVAL) return;
    job.lastReport = now;
    job.reported = job.received;
    Post([progress = options.progress, url = job.url, received = job.received,
          total = job.DeclaredSize()] { progress(url, received, total); });
  }

  void Finish(Job& job, HttpResult result) {
    job.temp.Discard();
    {
      std::lock_guard<std::mutex> lock(mutex);
      ready.push_back([done = std::move(job.done), r = std::move(result)] { done(r); });
      --active;
    }
    readyChanged.notify_all();
  }

  std::mutex mutex;
  std::condition_variable readyChanged;
  std::deque<std::unique_ptr<Job>> queued;  // guarded by mutex
  std::deque<std::function<void()>> ready;  // guarded by mutex
  size_t active = 0;                        // queued or running; guarded by mutex
  bool stopping = false;                    // guarded by mutex
  CURLM* multi = nullptr;
  std::thread worker;
};

// ---- the FileSystem ---------------------------------------------------------------

std::shared_ptr<HttpFileSystem> HttpFileSystem::Create(HttpOptions options,
                                                       std::shared_ptr<FileSystem> local) {
  GlobalInitOnce();
  if (!local) local = CreateNativeFileSystem();
  // The constructor is private: make_shared cannot reach it.
  auto impl = std::make_unique<Impl>(std::move(options), local);
  return std::shared_ptr<HttpFileSystem>(new HttpFileSystem(std::move(local), std::move(impl)));
}

HttpFileSystem::HttpFileSystem(std::shared_ptr<FileSystem> local, std::unique_ptr<Impl> i)
    : ForwardingFileSystem(std::move(local)), impl(std::move(i)) {}

HttpFileSystem::~HttpFileSystem() = default;

void HttpFileSystem::Download(std::string const& url, std::string const& localPath,
                              std::string const& ifNoneMatch,
                              std::function<void(HttpResult const&)> done) {
  if (!IsHttpUrl(url)) {
    HttpResult r;
    r.reason = "not an http or https URL: " + url;
    impl->Post([done = std::move(done), r] { done(r); });
    return;
  }
  auto job = std::make_unique<Job>();
  job->url = url;
  job->localPath = localPath;
  job->ifNoneMatch = ifNoneMatch;
  job->done = std::move(done);
  impl->Queue(std::move(job));
}

bool HttpFileSystem::WaitIdle(std::chrono::milliseconds limit) {
  return impl->WaitIdle(limit);
}

namespace {

// Hands the local file system's answer on to the next PumpCallbacks.
class Relay : public FileSystem::Callback {
public:
  Relay(std::function<void(std::function<void()>)> p, std::shared_ptr<FileSystem::Callback> c)
      : post(std::move(p)), cb(std::move(c)) {}
  void OnComplete(bool success) override {
    if (!cb) return;
    post([cb = std::move(cb), success] { cb->OnComplete(success); });
  }

private:
  std::function<void(std::function<void()>)> post;
  std::shared_ptr<FileSystem::Callback> cb;
};

}  // namespace

void HttpFileSystem::AsyncDownloadFile(char const* url, char const* localPath,
                                       std::shared_ptr<Callback> const& cb) {
  FileStat st;
  const std::string path = localPath != nullptr ? localPath : "";
  if (url != nullptr && IsHttpUrl(url) && !(Stat(path.c_str(), st) && st.IsRegularFile())) {
    Download(url, path, "", [cb](HttpResult const& r) {
      if (cb) cb->OnComplete(r.success);
    });
    return;
  }
  Impl* self = impl.get();
  impl->local->AsyncDownloadFile(
      url, localPath,
      std::make_shared<Relay>([self](std::function<void()> fn) { self->Post(std::move(fn)); }, cb));
}

void HttpFileSystem::PumpCallbacks() {
  impl->Pump();
}

}  // namespace oru
