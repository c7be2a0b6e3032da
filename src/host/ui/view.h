// Views that plug-ins paint themselves: view classes registered by name,
// the view windows made from them, off-screen buffers to paint in, and the
// bitmaps the buffers copy.
//
// A view class's procedures receive the view's messages (paint, left button
// released, wheel, vertical scroll). Each view carries user data that the
// owning dialog attaches at its Init; until then the host's default
// handling applies and the procedures are not called. Painting goes through
// an OffScreenBuffer, which is copied to the view in one step.
//
// Everything here runs on the host's user-interface thread.
#pragma once

#include "host/ui/dialog.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mq::ui {

// An 8-bit RGB picture, rows top to bottom, as the screen shows it.
struct Bitmap {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;  // 3 per pixel
};

struct Size {
    int w = 0, h = 0;
    bool operator==(const Size&) const = default;
};

enum class ScrollRequest { LineUp, LineDown, PageUp, PageDown, ThumbTrack, Other };

class View {
public:
    virtual ~View() = default;
    virtual int id() const = 0;
    virtual Size size() const = 0;  // pixels
    // What the owning dialog attached; null until it does.
    virtual void* userData() const = 0;
    virtual void setUserData(void* data) = 0;
    // The vertical scroll bar: shown or not, its range and its position,
    // which the bar keeps within the range.
    virtual void showScrollBar(bool on) = 0;
    virtual void setScrollRange(int min, int max) = 0;
    virtual int scrollMin() const = 0;
    virtual int scrollMax() const = 0;
    virtual void setScrollPos(int pos) = 0;
    virtual int scrollPos() const = 0;
    virtual void setFocus() = 0;
    // Ask for a paint message now.
    virtual void repaint() = 0;
};

// The procedures of a view class; the host calls them only once the view
// has user data.
class ViewClass {
public:
    virtual ~ViewClass() = default;
    virtual void paint(View& view) = 0;
    // x and y in view pixels.
    virtual void leftButtonUp(View& view, int x, int y) = 0;
    // delta: 120 per notch, positive away from the user.
    virtual void wheel(View& view, int delta) = 0;
    virtual void verticalScroll(View& view, ScrollRequest request, int thumbPos) = 0;
};

// A picture the size of one view, painted off screen and copied to the
// view in one step. Coordinates are view pixels; drawing is clipped to the
// buffer. Text uses the host's application font with a transparent
// background.
class OffScreenBuffer {
public:
    virtual ~OffScreenBuffer() = default;
    virtual void setBackground(Rgb colour) = 0;
    // Fill everything with the background.
    virtual void erase() = 0;
    // Copy bitmap unscaled with its top-left corner at x, y; a larger
    // bitmap shows its top-left w by h pixels.
    virtual void drawBitmap(const Bitmap& bitmap, int x, int y, int w, int h) = 0;
    // The rectangle [left, right) x [top, bottom) filled with fill and
    // outlined with pen.
    virtual void rectangle(int left, int top, int right, int bottom, Rgb pen, Rgb fill) = 0;
    virtual void text(int x, int y, const std::string& text) = 0;
    virtual Size textExtent(const std::string& text) const = 0;
    // Copy the buffer to its view.
    virtual void blit() = 0;
};

}  // namespace mq::ui
