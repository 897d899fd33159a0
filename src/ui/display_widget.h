#pragma once

#include <obs.h>

#include <QWidget>

#include <functional>

namespace cv {

// A native window libobs draws into: Qt never paints it. The display is made when the
// widget shows and goes when it hides; drawDisplay() runs on the graphics thread. Its
// ancestors stay plain widgets, so the host's window and docks are not made native.
class DisplayWidget : public QWidget {
	Q_OBJECT

public:
	explicit DisplayWidget(QWidget *parent = nullptr);
	~DisplayWidget() override;

	obs_display_t *currentDisplay() const { return display; }
	QPaintEngine *paintEngine() const override;

protected:
	// Graphics thread; cx by cy is the display's size.
	virtual void drawDisplay(uint32_t cx, uint32_t cy) = 0;
	// Runs `change` while no frame is drawn, for what drawDisplay() reads.
	void whileNotDrawing(const std::function<void()> &change);
	// A subclass calls it in its destructor, before what drawDisplay() reads goes.
	void destroyDisplay();

	void showEvent(QShowEvent *event) override;
	void hideEvent(QHideEvent *event) override;
	void resizeEvent(QResizeEvent *event) override;

private:
	static void draw(void *param, uint32_t cx, uint32_t cy);

	obs_display_t *display = nullptr;
};

// Graphics thread, inside a display's draw: fills a rectangle of the current projection
// with a colour 0xAARRGGBB, blended over what is drawn.
void draw_tint(float x, float y, float width, float height, uint32_t argb);

} // namespace cv
