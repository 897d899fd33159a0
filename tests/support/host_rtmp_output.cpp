#include "host_rtmp_output.h"

namespace cvtest {

HostRtmpOutput make_host_rtmp_output(const std::string &server, const std::string &key, obs_encoder_t *video,
				     obs_encoder_t *audio)
{
	HostRtmpOutput host;
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_string(settings, "server", server.c_str());
	obs_data_set_string(settings, "key", key.c_str());
	host.service = obs_service_create("rtmp_custom", ("host service " + key).c_str(), settings, nullptr);
	host.output = obs_output_create("rtmp_output", ("host rtmp " + key).c_str(), nullptr, nullptr);
	if (!host.service || !host.output)
		return {};
	obs_output_set_service(host.output, host.service);
	obs_output_set_video_encoder(host.output, video);
	obs_output_set_audio_encoder(host.output, audio, 0);
	obs_output_set_reconnect_settings(host.output, 25, 2);
	return host;
}

} // namespace cvtest
