#include "bench_service.h"

#include <obs-module.h>

#include <string>

namespace cvbench {

namespace {

struct Service {
	std::string server;
	std::string key;
};

void update(void *data, obs_data_t *settings)
{
	auto *service = static_cast<Service *>(data);
	service->server = obs_data_get_string(settings, "server");
	service->key = obs_data_get_string(settings, "key");
}

const char *url(void *data)
{
	return static_cast<Service *>(data)->server.c_str();
}

const char *key(void *data)
{
	return static_cast<Service *>(data)->key.c_str();
}

#if LIBOBS_API_MAJOR_VER >= 30
// Newer hosts ask a service for its protocol and connection details.
const char *connect_info(void *data, uint32_t type)
{
	if (type == OBS_SERVICE_CONNECT_INFO_SERVER_URL)
		return url(data);
	if (type == OBS_SERVICE_CONNECT_INFO_STREAM_KEY)
		return key(data);
	return nullptr;
}
#endif

} // namespace

void register_bench_service()
{
	obs_service_info info = {};
	info.id = kBenchServiceId;
	info.get_name = [](void *) {
		return "benchmark RTMP service";
	};
	info.create = [](obs_data_t *settings, obs_service_t *) -> void * {
		auto *service = new Service;
		update(service, settings);
		return service;
	};
	info.destroy = [](void *data) {
		delete static_cast<Service *>(data);
	};
	info.update = update;
	info.get_url = url;
	info.get_key = key;
#if LIBOBS_API_MAJOR_VER >= 30
	info.get_protocol = [](void *) {
		return "RTMP";
	};
	info.get_connect_info = connect_info;
	info.can_try_to_connect = [](void *data) {
		return !static_cast<Service *>(data)->server.empty();
	};
#endif
	obs_register_service(&info);
}

} // namespace cvbench
