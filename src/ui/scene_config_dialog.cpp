#include "scene_config_dialog.h"

#include "texts.h"

#include <obs-frontend-api.h>
#include <obs.h>
#include <util/bmem.h>

#include <QDialogButtonBox>
#include <QLabel>
#include <QListWidget>
#include <QVBoxLayout>

namespace cv {

SceneConfigDialog::SceneConfigDialog(const QString &sceneName, const QString &currentSource, QWidget *parent)
	: QDialog(parent)
{
	setWindowTitle(text("SceneConfig.Title").arg(sceneName));
	setMinimumSize(320, 400);
	auto *layout = new QVBoxLayout(this);

	auto *hint = new QLabel(text("SceneConfig.Hint"), this);
	hint->setWordWrap(true);
	hint->setStyleSheet("font-size: 11px; color: #aaa; margin-bottom: 6px;");
	layout->addWidget(hint);

	sourceList = new QListWidget(this);
	sourceList->setObjectName("sourceList");
	auto *none = new QListWidgetItem(text("SceneConfig.None"), sourceList);
	none->setData(Qt::UserRole, QString());
	if (currentSource.isEmpty())
		sourceList->setCurrentItem(none);

	obs_frontend_source_list scenes = {};
	obs_frontend_get_scenes(&scenes);
	for (size_t i = 0; i < scenes.sources.num; i++) {
		const QString name = QString::fromUtf8(obs_source_get_name(scenes.sources.array[i]));
		auto *item = new QListWidgetItem(name, sourceList);
		item->setData(Qt::UserRole, name);
		if (!currentSource.isEmpty() && name == currentSource)
			sourceList->setCurrentItem(item);
	}
	obs_frontend_source_list_free(&scenes);

	connect(sourceList, &QListWidget::itemDoubleClicked, this, &SceneConfigDialog::onItemDoubleClicked);

	auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
	connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
	connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

	layout->addWidget(sourceList, 0);
	layout->addWidget(buttons, 0);
}

QString SceneConfigDialog::selectedSource() const
{
	const QListWidgetItem *item = sourceList ? sourceList->currentItem() : nullptr;
	return item ? item->data(Qt::UserRole).toString() : QString();
}

void SceneConfigDialog::onItemDoubleClicked()
{
	accept();
}

} // namespace cv
