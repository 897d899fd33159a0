#pragma once

#include <obs.h>

#include <QWidget>

namespace cv {

class VerticalCanvas;

// The live picture of the vertical canvas. Qt never paints it: its native window is
// handed to libobs as a display, and libobs draws the active vertical scene's host
// scene into it on the graphics thread, covering the canvas area.
class VerticalPreviewWidget : public QWidget {
	Q_OBJECT

public:
	explicit VerticalPreviewWidget(VerticalCanvas *previewCanvas, QWidget *parent = nullptr);
	~VerticalPreviewWidget() override;

	void setCanvas(VerticalCanvas *newCanvas) { canvas = newCanvas; }
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

	VerticalCanvas *canvas = nullptr;
	obs_display_t *display = nullptr;
};

} // namespace cv
