// The session library of the recording system: one session reaches one
// module's sensor through the backend its connection names (see
// camera_backend.h). Operations are asynchronous: each returns a future that
// the caller waits on; the callback, when not empty, is called with the same
// result on the session's worker thread just before the future becomes ready.
// An operation that outlasts the session's time-out yields an error.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/camera/quarn_connection.h"
#include "orbivane/export.h"
#include "orbivane/session/quarn_records.h"
#include "orbivane/utils/return_state.h"

namespace Quarn {

class CameraBackend;

class ORBIVANE_EXPORT QuarnSession {
 public:
  using SensorInfoResult = Utils::ReturnState<CamerasensorInfoData, std::string>;
  using EmptyResult = Utils::ReturnState<EmptyReturn, std::string>;
  using SearchResult = Utils::ReturnState<std::vector<SearchInfo>, std::string>;
  using CaptureResult = Utils::ReturnState<cv::Mat, std::string>;

  // No connection yet; the options are the process-wide defaults.
  QuarnSession();
  explicit QuarnSession(SessionOptions options);
  ~QuarnSession();
  QuarnSession(const QuarnSession&) = delete;
  QuarnSession& operator=(const QuarnSession&) = delete;

  // Opens the connection. The player manager may be null.
  Utils::ReturnState<bool, std::string> Connect(const QuarnConnection& connection, PlayerManager* playerManager);
  bool connected() const;
  const QuarnConnection& connection() const { return connection_; }

  // A connected session for `connection`. With `reuse`, a session of this
  // process already open for an equal connection is handed out again;
  // otherwise (or when there is none) a new one is connected.
  static Utils::ReturnState<std::shared_ptr<QuarnSession>, std::string> getSharedConnection(
      const QuarnConnection& connection, bool reuse, SessionOptions options);

  std::future<SensorInfoResult> GetCamerasensorInfo(std::function<void(const SensorInfoResult&)> callback);
  std::future<EmptyResult> SetCamerasensor(int x, int y, std::function<void(const EmptyResult&)> callback);
  // The recordings of the session's device overlapping the criteria's time
  // range (an empty criteria device means the session's own; another device
  // is an error), by start time. Backends without recordings say so.
  std::future<SearchResult> Search(const SearchCriteria& criteria, std::function<void(const SearchResult&)> callback);
  // Makes a recording found by Search the device's current playback.
  std::future<EmptyResult> ShowTrack(const SearchInfo& track, std::function<void(const EmptyResult&)> callback);
  // One picture of the module's sensor window as it is now (BGR, 8 bits).
  std::future<CaptureResult> CaptureImage(std::function<void(const CaptureResult&)> callback);

  // Options of sessions made with the default constructor.
  static void setDefaultOptions(SessionOptions options);
  static SessionOptions defaultOptions();

 private:
  SessionOptions options_;
  QuarnConnection connection_;
  std::shared_ptr<CameraBackend> backend_;
};

}  // namespace Quarn
