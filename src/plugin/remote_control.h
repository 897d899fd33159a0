#pragma once

// The plug-in's requests and events on the host's websocket server, as the vendor
// "corvane-vertical-canvas". Requests arrive on the server's threads and are carried out
// on the host's UI thread, like the dock's buttons; their replies are objects with "ok"
// and, on failure, "error" (English words) and "errorCode" (a name that stays). Events
// tell what changed: a destination's state, the recording, the replay buffer (and each
// replay saved), the active vertical scene. No
// reply or event carries a stream key or a secret of an address.

#include "output/vertical_output.h"
#include "websocket_vendor.h"

#include <obs.hpp>

#include <QObject>

#include <string>
#include <utility>
#include <vector>

class QTimer;

namespace cv {

class Plugin;

inline constexpr const char *kVendorName = "corvane-vertical-canvas";

class RemoteControl : public QObject {
public:
	explicit RemoteControl(Plugin &plugin);
	~RemoteControl() override;

	// Registers the vendor and its requests; false (and nothing registered) when the
	// host runs no websocket server.
	bool join_websocket();
	// No more events: the server goes away with the host.
	void leave_websocket();
	// Sends an event for each state that changed since the last look.
	void report_changes();
	// A replay's file is complete: "ReplaySaved" with its full path.
	void report_replay_saved(const std::string &path);

	// One request, on the UI thread.
	OBSData handle(const std::string &type, obs_data_t *request);

private:
	OBSData status();
	void emit_event(const char *type, obs_data_t *data);

	Plugin &plugin_;
	websocket::Vendor vendor_ = nullptr;
	QTimer *watch_ = nullptr;
	struct Seen {
		struct Destination {
			std::string id;
			std::string name;
			StreamState state;
		};
		std::vector<Destination> destinations;
		bool recording = false;
		bool replay_buffer = false;
		std::string scene;
	};
	Seen seen_;
	bool seen_once_ = false;
};

} // namespace cv
