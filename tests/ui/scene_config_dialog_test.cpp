#include "ui_test.h"

#include "host_sources.h"

#include "ui/scene_config_dialog.h"

#include <QListWidget>
#include <QTest>

namespace {

class SceneConfigDialogTest : public UiTest {
protected:
	void SetUp() override
	{
		UiTest::SetUp();
		for (const char *name : {"Main", "main", "Chat"})
			scenes_.push_back(cvtest::make_three_band_scene(name, 0xFF0000, 0x00FF00, 0x0000FF));
		// The user's order in the host, not the order they were made in.
		cvtest::frontend::set_scene_order({"Chat", "Main", "main"});
	}

	void TearDown() override
	{
		for (obs_scene_t *scene : scenes_)
			obs_source_remove(obs_scene_get_source(scene));
		scenes_.clear();
		UiTest::TearDown();
	}

	static std::vector<QString> texts(QListWidget *list)
	{
		std::vector<QString> out;
		for (int i = 0; i < list->count(); i++)
			out.push_back(list->item(i)->text());
		return out;
	}

	std::vector<OBSSceneAutoRelease> scenes_;
};

} // namespace

TEST_F(SceneConfigDialogTest, ListsNoneThenHostScenesAndPreselectsTheExactName)
{
	cv::SceneConfigDialog dialog("Intro", "main");
	EXPECT_EQ(dialog.windowTitle(), QString::fromUtf8("Assign OBS Scene \u2014 Intro"));
	auto *list = dialog.findChild<QListWidget *>("sourceList");
	ASSERT_NE(list, nullptr);
	EXPECT_EQ(texts(list), (std::vector<QString>{"(None)", "Chat", "Main", "main"}));
	EXPECT_EQ(list->item(0)->data(Qt::UserRole).toString(), "");
	EXPECT_EQ(dialog.selectedSource(), "main");

	// Nothing assigned: "(None)", which means no assignment.
	cv::SceneConfigDialog unassigned("Intro", "");
	EXPECT_EQ(unassigned.findChild<QListWidget *>("sourceList")->currentRow(), 0);
	EXPECT_EQ(unassigned.selectedSource(), "");

	// A vanished assignment preselects nothing and reads as none.
	cv::SceneConfigDialog vanished("Intro", "Gone");
	EXPECT_EQ(vanished.findChild<QListWidget *>("sourceList")->currentItem(), nullptr);
	EXPECT_EQ(vanished.selectedSource(), "");
}

TEST_F(SceneConfigDialogTest, DoubleClickAcceptsThatItem)
{
	cv::SceneConfigDialog dialog("Intro", "");
	auto *list = dialog.findChild<QListWidget *>("sourceList");
	dialog.show();
	const QPoint at = list->visualItemRect(list->item(1)).center();
	QTest::mouseClick(list->viewport(), Qt::LeftButton, Qt::NoModifier, at);
	QTest::mouseDClick(list->viewport(), Qt::LeftButton, Qt::NoModifier, at);
	EXPECT_EQ(dialog.result(), int(QDialog::Accepted));
	EXPECT_EQ(dialog.selectedSource(), "Chat");
}
