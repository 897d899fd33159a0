#include "host_services.h"

#include "stream/stream_url.h"

#include <obs.hpp>

namespace cv {

namespace {

constexpr const char *kServiceType = "rtmp_common";

// The host's own list properties, filled the way its settings dialog fills them: every
// service shown, and the servers of `service`.
struct ServiceProperties {
	obs_properties_t *properties = nullptr;
	OBSDataAutoRelease settings = obs_data_create();

	explicit ServiceProperties(const std::string &service)
	{
		properties = obs_get_service_properties(kServiceType);
		if (!properties)
			return;
		obs_data_set_bool(settings, "show_all", true);
		obs_data_set_string(settings, "service", service.c_str());
		for (const char *name : {"show_all", "service"})
			if (obs_property_t *property = obs_properties_get(properties, name))
				obs_property_modified(property, settings);
	}
	~ServiceProperties() { obs_properties_destroy(properties); }
	ServiceProperties(const ServiceProperties &) = delete;
	ServiceProperties &operator=(const ServiceProperties &) = delete;

	obs_property_t *list(const char *name) const
	{
		return properties ? obs_properties_get(properties, name) : nullptr;
	}
};

OBSServiceAutoRelease make_service(const std::string &service, const std::string &server)
{
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_string(settings, "service", service.c_str());
	obs_data_set_string(settings, "server", server.c_str());
	return obs_service_create_private(kServiceType, "cv_service", settings);
}

} // namespace

std::vector<std::string> host_services()
{
	std::vector<std::string> services;
	const ServiceProperties host("");
	if (obs_property_t *list = host.list("service"))
		for (size_t i = 0; i < obs_property_list_item_count(list); i++)
			if (!obs_property_list_item_disabled(list, i))
				services.emplace_back(obs_property_list_item_string(list, i));
	return services;
}

std::vector<HostChoice> service_servers(const std::string &service)
{
	std::vector<HostChoice> servers;
	const ServiceProperties host(service);
	if (obs_property_t *list = host.list("server"))
		for (size_t i = 0; i < obs_property_list_item_count(list); i++) {
			const char *url = obs_property_list_item_string(list, i);
			if (url && stream_url_problem(url).empty())
				servers.push_back({url, obs_property_list_item_name(list, i)});
		}
	return servers;
}

std::string service_url(const std::string &service, const std::string &server)
{
	const std::vector<HostChoice> servers = service_servers(service);
	if (servers.empty())
		return {};
	OBSServiceAutoRelease host = make_service(service, server.empty() ? servers.front().value : server);
#if LIBOBS_API_MAJOR_VER >= 30
	const char *url = host ? obs_service_get_connect_info(host, OBS_SERVICE_CONNECT_INFO_SERVER_URL) : nullptr;
#else
	const char *url = host ? obs_service_get_url(host) : nullptr;
#endif
	return url ? url : std::string();
}

ServiceLimits service_limits(const std::string &service)
{
	ServiceLimits limits;
	OBSServiceAutoRelease host = make_service(service, "");
	if (!host)
		return limits;
	int audio = 0;
	obs_service_get_max_bitrate(host, &limits.max_video_kbps, &audio);
	// What the host's own stream gets: the service's keyframe interval, if it has one.
	OBSDataAutoRelease video = obs_data_create();
	obs_data_set_int(video, "keyint_sec", 0);
	obs_service_apply_encoder_settings(host, video, nullptr);
	limits.keyint_sec = int(obs_data_get_int(video, "keyint_sec"));
	return limits;
}

} // namespace cv
