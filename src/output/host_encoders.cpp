#include "host_encoders.h"

#include "base/encoder_order.h"

#include <cstring>

namespace cv {

namespace {

// The property that holds an encoder's preset, by the names the host's encoders use.
obs_property_t *preset_property(obs_properties_t *properties)
{
	for (const char *name : {"preset2", "preset", "target_usage"}) {
		obs_property_t *property = obs_properties_get(properties, name);
		if (property && obs_property_get_type(property) == OBS_PROPERTY_LIST &&
		    obs_property_list_format(property) == OBS_COMBO_FORMAT_STRING)
			return property;
	}
	return nullptr;
}

} // namespace

std::vector<HostChoice> host_h264_encoders()
{
	std::vector<HostChoice> encoders;
	const char *id = nullptr;
	for (size_t i = 0; obs_enum_encoder_types(i, &id); i++) {
		const char *codec = obs_get_encoder_codec(id);
		if (obs_get_encoder_type(id) != OBS_ENCODER_VIDEO || !codec || strcmp(codec, "h264") != 0 ||
		    (obs_get_encoder_caps(id) & (OBS_ENCODER_CAP_DEPRECATED | OBS_ENCODER_CAP_INTERNAL)))
			continue;
		const char *name = obs_encoder_get_display_name(id);
		encoders.push_back({id, name ? name : id});
	}
	return encoders;
}

std::vector<HostChoice> encoder_presets(const std::string &id)
{
	std::vector<HostChoice> presets;
	obs_properties_t *properties = obs_get_encoder_properties(id.c_str());
	if (obs_property_t *property = properties ? preset_property(properties) : nullptr)
		for (size_t i = 0; i < obs_property_list_item_count(property); i++)
			presets.push_back(
				{obs_property_list_item_string(property, i), obs_property_list_item_name(property, i)});
	obs_properties_destroy(properties);
	return presets;
}

OBSDataAutoRelease video_encoder_settings(const std::string &id, const OutputConfig &config, bool preset_applies)
{
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_int(settings, "bitrate", config.bitrate_kbps);
	obs_data_set_string(settings, "rate_control", "CBR");
	obs_data_set_int(settings, "keyint_sec", config.keyint_sec);
	if (preset_applies && !config.encoder_preset.empty()) {
		obs_properties_t *properties = obs_get_encoder_properties(id.c_str());
		if (obs_property_t *property = properties ? preset_property(properties) : nullptr)
			obs_data_set_string(settings, obs_property_name(property), config.encoder_preset.c_str());
		obs_properties_destroy(properties);
	}
	if (id == kX264Encoder && config.low_latency)
		obs_data_set_string(settings, "tune", "zerolatency");
	return settings;
}

} // namespace cv
