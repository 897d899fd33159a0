#pragma once

// The host's sources as the user renames and removes them, told on the host's UI thread:
// the vertical scenes follow a renamed host scene and let go of a removed one.

#include <obs.hpp>

#include <functional>
#include <string>

class QObject;

namespace cv {

struct HostSceneEvent {
	enum class Kind { Renamed, Removed };
	Kind kind;
	OBSWeakSource source; // compared by identity; the source may be gone already
	std::string new_name;
};

class HostSceneWatch {
public:
	// `handle` runs on the thread of `context` (the UI thread), after the host's signal,
	// never once the watch or `context` is gone.
	HostSceneWatch(QObject *context, std::function<void(const HostSceneEvent &)> handle);
	~HostSceneWatch();
	HostSceneWatch(const HostSceneWatch &) = delete;
	HostSceneWatch &operator=(const HostSceneWatch &) = delete;

private:
	void post(HostSceneEvent event);
	static void on_rename(void *data, calldata_t *calldata);
	static void on_remove(void *data, calldata_t *calldata);

	QObject *context_;
	std::function<void(const HostSceneEvent &)> handle_;
	OBSSignal rename_;
	OBSSignal remove_;
};

} // namespace cv
