#pragma once

// The streaming services the host's own Settings → Stream lists (its rtmp-services module
// and that module's list, so the list is always the host's), their servers and limits.

#include "host_encoders.h"

#include <string>
#include <vector>

namespace cv {

// Every service the host lists (its "show all" list); empty without the module.
std::vector<std::string> host_services();
// A service's servers: the address and the host's name for it. Only servers the
// vertical stream can speak to (RTMP, RTMPS, SRT).
std::vector<HostChoice> service_servers(const std::string &service);
// The address a destination of a service streams to: the server chosen, or the service's
// first; empty when the host does not know the service.
std::string service_url(const std::string &service, const std::string &server);

// What a service allows, as the host applies it to its own stream: the highest video
// bitrate (0: no limit) and the keyframe interval it wants (0: any).
struct ServiceLimits {
	int max_video_kbps = 0;
	int keyint_sec = 0;
};
ServiceLimits service_limits(const std::string &service);

} // namespace cv
