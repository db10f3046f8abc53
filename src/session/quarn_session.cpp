// Sessions: each operation runs on a worker thread of its own, guarded by the
// session's time-out.
#include "orbivane/session/quarn_session.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <thread>

#include "orbivane/session/camera_backend.h"

namespace Quarn {
namespace {

std::mutex& defaultsMutex() {
  static std::mutex m;
  return m;
}
SessionOptions& defaults() {
  static SessionOptions o;
  return o;
}

// Runs `operation` on a detached thread that keeps what it needs alive, and
// answers within `timeout`: with the operation's result, or a time-out error
// (the late result is then dropped). The callback sees the same answer.
template <typename Result>
std::future<Result> runGuarded(std::function<Result()> operation, std::chrono::milliseconds timeout,
                               std::function<void(const Result&)> callback, std::string what) {
  return std::async(std::launch::async, [operation = std::move(operation), timeout, callback = std::move(callback),
                                         what = std::move(what)]() -> Result {
    auto promise = std::make_shared<std::promise<Result>>();
    std::future<Result> answer = promise->get_future();
    std::thread([operation, promise] {
      try {
        promise->set_value(operation());
      } catch (const std::exception& e) {
        promise->set_value(Utils::failure(std::string(e.what())));
      } catch (...) {
        promise->set_value(Utils::failure(std::string("unknown failure in the camera backend")));
      }
    }).detach();
    Result result = answer.wait_for(timeout) == std::future_status::ready
                        ? answer.get()
                        : Result(Utils::failure(what + " timed out after " + std::to_string(timeout.count()) + " ms"));
    if (callback) callback(result);
    return result;
  });
}

template <typename Result>
std::future<Result> readyFailure(const std::string& error, const std::function<void(const Result&)>& callback) {
  Result result = Utils::failure(error);
  if (callback) callback(result);
  std::promise<Result> p;
  p.set_value(std::move(result));
  return p.get_future();
}

const char* const kNotConnected = "the session is not connected";

}  // namespace

QuarnSession::QuarnSession() : options_(defaultOptions()) {}
QuarnSession::QuarnSession(SessionOptions options) : options_(options) {}
QuarnSession::~QuarnSession() = default;

void QuarnSession::setDefaultOptions(SessionOptions options) {
  std::lock_guard<std::mutex> lock(defaultsMutex());
  defaults() = options;
}

SessionOptions QuarnSession::defaultOptions() {
  std::lock_guard<std::mutex> lock(defaultsMutex());
  return defaults();
}

bool QuarnSession::connected() const { return backend_ != nullptr; }

Utils::ReturnState<bool, std::string> QuarnSession::Connect(const QuarnConnection& connection, PlayerManager*) {
  auto backend = createCameraBackend(connection.backend);
  if (!backend) return Utils::failure(backend.error());
  std::shared_ptr<CameraBackend> b = backend.value();
  auto done = runGuarded<Utils::ReturnState<bool, std::string>>(
      [b, connection] { return b->connect(connection); }, options_.timeout, {}, "connecting");
  auto result = done.get();
  if (!result) return result;
  backend_ = b;
  connection_ = connection;
  return true;
}

Utils::ReturnState<std::shared_ptr<QuarnSession>, std::string> QuarnSession::getSharedConnection(
    const QuarnConnection& connection, bool reuse, SessionOptions options) {
  static std::mutex mutex;
  static std::vector<std::weak_ptr<QuarnSession>> open;
  std::lock_guard<std::mutex> lock(mutex);
  if (reuse) {
    for (const auto& weak : open) {
      auto session = weak.lock();
      if (session && session->connection_ == connection) return session;
    }
  }
  auto session = std::make_shared<QuarnSession>(options);
  auto connected = session->Connect(connection, nullptr);
  if (!connected) return Utils::failure(connected.error());
  open.erase(std::remove_if(open.begin(), open.end(), [](const auto& w) { return w.expired(); }), open.end());
  open.push_back(session);
  return session;
}

std::future<QuarnSession::SensorInfoResult> QuarnSession::GetCamerasensorInfo(
    std::function<void(const SensorInfoResult&)> callback) {
  if (!backend_) return readyFailure<SensorInfoResult>(kNotConnected, callback);
  auto b = backend_;
  return runGuarded<SensorInfoResult>([b] { return b->readSensorWindow(); }, options_.timeout, std::move(callback),
                                      "reading the sensor window");
}

std::future<QuarnSession::EmptyResult> QuarnSession::SetCamerasensor(int x, int y,
                                                                     std::function<void(const EmptyResult&)> callback) {
  if (!backend_) return readyFailure<EmptyResult>(kNotConnected, callback);
  auto b = backend_;
  return runGuarded<EmptyResult>([b, x, y] { return b->writeSensorWindow(x, y); }, options_.timeout,
                                 std::move(callback), "writing the sensor window");
}

std::future<QuarnSession::SearchResult> QuarnSession::Search(const SearchCriteria& criteria,
                                                             std::function<void(const SearchResult&)> callback) {
  if (!backend_) return readyFailure<SearchResult>(kNotConnected, callback);
  auto b = backend_;
  return runGuarded<SearchResult>([b, criteria] { return b->search(criteria); }, options_.timeout,
                                  std::move(callback), "searching recordings");
}

std::future<QuarnSession::EmptyResult> QuarnSession::ShowTrack(const SearchInfo& track,
                                                               std::function<void(const EmptyResult&)> callback) {
  if (!backend_) return readyFailure<EmptyResult>(kNotConnected, callback);
  auto b = backend_;
  return runGuarded<EmptyResult>([b, track] { return b->showTrack(track); }, options_.timeout, std::move(callback),
                                 "showing a track");
}

std::future<QuarnSession::CaptureResult> QuarnSession::CaptureImage(std::function<void(const CaptureResult&)> callback) {
  if (!backend_) return readyFailure<CaptureResult>(kNotConnected, callback);
  auto b = backend_;
  return runGuarded<CaptureResult>([b] { return b->capture(); }, options_.timeout, std::move(callback),
                                   "capturing a picture");
}

}  // namespace Quarn
