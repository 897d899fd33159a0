#include "websocket_vendor.h"

#include <callback/calldata.h>
#include <callback/proc.h>

namespace cv::websocket {

namespace {

// What the websocket plug-in hands out in "request" callbacks: the function and its data.
struct RequestHandler {
	RequestCallback callback;
	void *data;
};

// The websocket plug-in's own proc handler, found through the host's; null without it.
proc_handler_t *server_procs()
{
	calldata_t data = {};
	proc_handler_t *procs = nullptr;
	if (proc_handler_call(obs_get_proc_handler(), "obs_websocket_api_get_ph", &data))
		procs = static_cast<proc_handler_t *>(calldata_ptr(&data, "ph"));
	calldata_free(&data);
	return procs;
}

bool call_for_vendor(Vendor vendor, const char *proc, calldata_t *data)
{
	proc_handler_t *procs = vendor ? server_procs() : nullptr;
	if (!procs)
		return false;
	calldata_set_ptr(data, "vendor", vendor);
	return proc_handler_call(procs, proc, data) && calldata_bool(data, "success");
}

} // namespace

Vendor register_vendor(const char *name)
{
	proc_handler_t *procs = server_procs();
	if (!procs)
		return nullptr;
	calldata_t data = {};
	calldata_set_string(&data, "name", name);
	Vendor vendor = nullptr;
	if (proc_handler_call(procs, "vendor_register", &data))
		vendor = calldata_ptr(&data, "vendor");
	calldata_free(&data);
	return vendor;
}

bool register_request(Vendor vendor, const char *type, RequestCallback callback, void *data)
{
	// Copied by the websocket plug-in while it registers the request.
	RequestHandler handler = {callback, data};
	calldata_t call = {};
	calldata_set_string(&call, "type", type);
	calldata_set_ptr(&call, "callback", &handler);
	const bool done = call_for_vendor(vendor, "vendor_request_register", &call);
	calldata_free(&call);
	return done;
}

bool emit_event(Vendor vendor, const char *type, obs_data_t *data)
{
	calldata_t call = {};
	calldata_set_string(&call, "type", type);
	calldata_set_ptr(&call, "data", data);
	const bool done = call_for_vendor(vendor, "vendor_event_emit", &call);
	calldata_free(&call);
	return done;
}

} // namespace cv::websocket
