#include "ui_test.h"

#include "host_sources.h"
#include "log_capture.h"

#include "canvas/vertical_canvas.h"
#include "ui/vertical_preview.h"

#include <QResizeEvent>

// Last: Xlib's macros clash with Qt's names.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace {

// Native windows on the test's X server, drawn into by libobs.
class PreviewTest : public UiTest {
protected:
	const char *platform() const override { return "xcb"; }

	void SetUp() override
	{
		UiTest::SetUp();
		if (HasFatalFailure())
			return;
		cv::CanvasConfig config;
		config.width = 360;
		config.height = 640;
		canvas_ = std::make_unique<cv::VerticalCanvas>(config);
		ASSERT_TRUE(canvas_->init());
		scene_ = cvtest::make_three_band_scene("Preview Show", 0xFF0000, 0x00FF00, 0x0000FF);
		ASSERT_TRUE(canvas_->assign_scene_source("Scene 1", "Preview Show"));
	}

	void TearDown() override
	{
		if (canvas_)
			canvas_->shutdown();
		canvas_.reset();
		if (scene_)
			obs_source_remove(obs_scene_get_source(scene_));
		scene_ = nullptr;
		UiTest::TearDown();
	}

	// 0xRRGGBB of a pixel of a window, read from the X server.
	static uint32_t window_pixel(WId window, int x, int y)
	{
		Display *display = XOpenDisplay(nullptr);
		if (!display)
			return 0xFFFFFFFF;
		XImage *image = XGetImage(display, Window(window), x, y, 1, 1, AllPlanes, ZPixmap);
		uint32_t rgb = 0xFFFFFFFF;
		if (image) {
			rgb = uint32_t(XGetPixel(image, 0, 0)) & 0xFFFFFF;
			XDestroyImage(image);
		}
		XCloseDisplay(display);
		return rgb;
	}

	std::unique_ptr<cv::VerticalCanvas> canvas_;
	OBSSceneAutoRelease scene_;
};

} // namespace

TEST_F(PreviewTest, ShowDrawsTheActiveSceneAndHideDropsTheDisplay)
{
	cv::VerticalPreviewWidget preview(canvas_.get());
	EXPECT_EQ(preview.minimumSizeHint(), QSize(135, 240));
	EXPECT_EQ(preview.paintEngine(), nullptr);
	preview.resize(180, 320);
	preview.show();
	cvtest::process_events_for(100);
	ASSERT_NE(preview.currentDisplay(), nullptr);
	EXPECT_TRUE(cvtest::log_contains("[corvane] VerticalPreviewWidget: display created (180x320)"));

	// The 16:9 scene covers the 9:16 canvas: its green middle band fills the picture.
	uint32_t centre = 0;
	for (int i = 0; i < 50 && (centre & 0x00FF00) != 0x00FF00; i++) {
		cvtest::process_events_for(50);
		centre = window_pixel(preview.winId(), 90, 160);
	}
	EXPECT_GT((centre >> 8) & 0xFF, 0xC0u) << std::hex << centre;
	EXPECT_LT((centre >> 16) & 0xFF, 0x40u) << std::hex << centre;
	EXPECT_LT(centre & 0xFF, 0x40u) << std::hex << centre;

	preview.hide();
	cvtest::process_events_for(50);
	EXPECT_EQ(preview.currentDisplay(), nullptr);
	EXPECT_TRUE(cvtest::log_contains("[corvane] VerticalPreviewWidget: display destroyed"));

	// Shown again: a new display.
	preview.show();
	cvtest::process_events_for(100);
	EXPECT_NE(preview.currentDisplay(), nullptr);
	EXPECT_EQ(cvtest::log_count("display created"), 2u);
}

TEST_F(PreviewTest, WidthIsHeldToNineSixteenths)
{
	cv::VerticalPreviewWidget preview(canvas_.get());
	preview.resize(300, 320);
	QResizeEvent narrow(QSize(300, 320), QSize());
	QCoreApplication::sendEvent(&preview, &narrow);
	EXPECT_EQ(preview.maximumWidth(), 180);
	preview.setMaximumWidth(QWIDGETSIZE_MAX);
	preview.resize(180, 640);
	QResizeEvent tall(QSize(180, 640), QSize());
	QCoreApplication::sendEvent(&preview, &tall);
	EXPECT_EQ(preview.maximumWidth(), QWIDGETSIZE_MAX);
}
