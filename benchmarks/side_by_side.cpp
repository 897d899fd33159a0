#include "side_by_side.h"

namespace cvbench {

bool SideBySide::make(const std::string &plugin_key, const std::string &host_key, std::string *error)
{
	if (!server.start(error))
		return false;
	if (!pipeline.create(server.app_url(), plugin_key)) {
		*error = "the output could not be made";
		return false;
	}
	host = make_host_rtmp_output(server.app_url(), host_key, obs_output_get_video_encoder(pipeline.output()),
				     obs_output_get_audio_encoder(pipeline.output(), 0));
	if (!host.output) {
		*error = "the host's rtmp_output is not available";
		return false;
	}
	return true;
}

} // namespace cvbench
