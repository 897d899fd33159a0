#pragma once

#include <obs.h>

#include <QWidget>

namespace cv {

class VerticalCanvas;

// The live picture of the vertical canvas. Qt never paints it: its native window is
// handed to libobs as a display, and libobs draws the canvas's own view into it on the
// graphics thread, letterboxed: what is shown is what is streamed.
class VerticalPreviewWidget : public QWidget {
	Q_OBJECT

public:
	explicit VerticalPreviewWidget(VerticalCanvas *previewCanvas, QWidget *parent = nullptr);
	~VerticalPreviewWidget() override;

	// Waits for a frame being drawn from the old canvas, so the caller may delete that
	// canvas once this returns.
	void setCanvas(VerticalCanvas *newCanvas);
	VerticalCanvas *currentCanvas() const { return canvas; }
	obs_display_t *currentDisplay() const { return display; }

	QSize minimumSizeHint() const override;
	QPaintEngine *paintEngine() const override;

protected:
	void showEvent(QShowEvent *event) override;
	void hideEvent(QHideEvent *event) override;
	void resizeEvent(QResizeEvent *event) override;

private:
	static void draw(void *param, uint32_t cx, uint32_t cy);
	void destroyDisplay();

	// Read by the draw callback; changed only while it is not registered.
	VerticalCanvas *canvas = nullptr;
	obs_display_t *display = nullptr;
};

} // namespace cv
