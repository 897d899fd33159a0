#include "host_rtmp_output.h"

#include <obs-module.h>

#include <string>

namespace cvtest {

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

void register_test_service()
{
	obs_service_info info = {};
	info.id = kTestServiceId;
	info.get_name = [](void *) {
		return "test RTMP service";
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

HostRtmpOutput make_host_rtmp_output(const std::string &server, const std::string &key, obs_encoder_t *video,
				     obs_encoder_t *audio)
{
	HostRtmpOutput host;
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_string(settings, "server", server.c_str());
	obs_data_set_string(settings, "key", key.c_str());
	host.service = obs_service_create(kTestServiceId, ("test service " + key).c_str(), settings, nullptr);
	host.output = obs_output_create("rtmp_output", ("host rtmp " + key).c_str(), nullptr, nullptr);
	if (!host.service || !host.output) {
		host.output = nullptr;
		host.service = nullptr;
		return host;
	}
	obs_output_set_service(host.output, host.service);
	obs_output_set_video_encoder(host.output, video);
	obs_output_set_audio_encoder(host.output, audio, 0);
	obs_output_set_reconnect_settings(host.output, kHostMaxRetries, kHostRetryDelaySec);
	return host;
}

} // namespace cvtest
