#include "host_scene_watch.h"

#include <QMetaObject>
#include <QObject>
#include <QPointer>

namespace cv {

HostSceneWatch::HostSceneWatch(QObject *context, std::function<void(const HostSceneEvent &)> handle)
	: context_(context),
	  handle_(std::move(handle))
{
	signal_handler_t *host = obs_get_signal_handler();
	rename_.Connect(host, "source_rename", on_rename, this);
	remove_.Connect(host, "source_remove", on_remove, this);
}

// Disconnecting waits for a signal being told on another thread; none comes after it.
HostSceneWatch::~HostSceneWatch()
{
	rename_.Disconnect();
	remove_.Disconnect();
}

// Any thread: the host renames and removes sources wherever it is asked to.
void HostSceneWatch::post(HostSceneEvent event)
{
	QMetaObject::invokeMethod(
		context_, [handle = handle_, event = std::move(event)] { handle(event); }, Qt::QueuedConnection);
}

void HostSceneWatch::on_rename(void *data, calldata_t *calldata)
{
	auto *source = static_cast<obs_source_t *>(calldata_ptr(calldata, "source"));
	const char *name = calldata_string(calldata, "new_name");
	if (source && name)
		static_cast<HostSceneWatch *>(data)->post(
			{HostSceneEvent::Kind::Renamed, OBSGetWeakRef(source), std::string(name)});
}

void HostSceneWatch::on_remove(void *data, calldata_t *calldata)
{
	if (auto *source = static_cast<obs_source_t *>(calldata_ptr(calldata, "source")))
		static_cast<HostSceneWatch *>(data)->post({HostSceneEvent::Kind::Removed, OBSGetWeakRef(source), {}});
}

} // namespace cv
