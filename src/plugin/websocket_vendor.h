#pragma once

// The host's websocket server as its plug-in offers it to other modules, through proc
// handlers: a vendor of one's own, its requests and its events. Without that plug-in
// nothing registers and every call says so by its result.

#include <obs.h>

namespace cv::websocket {

using Vendor = void *;
// Told on the websocket server's threads (or on whichever thread calls the request);
// `response` is filled in before it returns.
using RequestCallback = void (*)(obs_data_t *request, obs_data_t *response, void *data);

// Null when the host runs no websocket plug-in, or the name is taken.
Vendor register_vendor(const char *name);
bool register_request(Vendor vendor, const char *type, RequestCallback callback, void *data);
// Sent to every client that subscribed to vendor events; `data` keeps its references.
bool emit_event(Vendor vendor, const char *type, obs_data_t *data);

} // namespace cv::websocket
