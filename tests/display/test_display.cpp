// Display and print on the portable device context (and, under Windows, on
// a real GDI memory context), checked against Pillow's nearest-neighbour
// and box reductions and against arithmetic shown with each case: the grey
// of a known pattern's coverage, the colour an alpha blend or a raster
// operation gives, the rectangles of the aspect display.
#include "support/support.h"

#include <functional>
#include <set>

#include "display/gdi.h"
#include "display/render.h"
#include "platform/surface.h"
#ifdef _WIN32
#include <windows.h>
#endif

namespace {
using Rgb = std::array<int, 3>;

struct Context {
    void *dc = nullptr;
    explicit Context(int w, int h, int colours = 0) { EXPECT_EQ(IMGLOW_create_dc(w, h, colours, &dc), 0); }
    ~Context() { IMGLOW_delete_dc(dc); }
    Surface *surface() const { return SurfaceFind(dc); }
    Raster Pixels() const
    {
        Raster r;
        r.width = surface()->width, r.height = surface()->height;
        r.rgb.resize((size_t)r.width * r.height * 3);
        EXPECT_EQ(IMGLOW_read_dc(dc, r.rgb.data(), (uint32_t)r.rgb.size()), (int32_t)r.rgb.size());
        return r;
    }
};

Rgb At(const Raster &r, int x, int y)
{
    const uint8_t *p = &r.rgb[(size_t)(y * r.width + x) * 3];
    return {p[0], p[1], p[2]};
}

// A black-and-white image, black where `black` says; run-coded when `coded`.
int32_t Bilevel(int w, int h, const std::function<bool(int, int)> &black, bool coded = true)
{
    int32_t handle = NewImage(w, h, 1);
    std::vector<uint8_t> row(DibStride((uint32_t)w, 1));
    for (int y = 0; y < h; y++) {
        std::fill(row.begin(), row.end(), 0);
        for (int x = 0; x < w; x++)
            SetRowPixel(row.data(), x, 1, black(x, y) ? 0 : 1);
        IMGLOW_put_raster(handle, row.data(), y, 0);
    }
    if (coded) {
        EXPECT_EQ(IMG_dib_to_runs(handle), 0);
    }
    return handle;
}

// An 8-bit image of palette entries `colours` (R, G, B), pixel (x, y) = f(x, y).
int32_t Indexed(int w, int h, const std::vector<Rgb> &colours, const std::function<int(int, int)> &f)
{
    Picture p;
    p.width = w, p.height = h, p.bits = 8;
    p.palette.assign(1024, 0);
    for (size_t i = 0; i < colours.size(); i++)
        for (int k = 0; k < 3; k++)
            p.palette[4 * i + k] = (uint8_t)colours[i][(size_t)(2 - k)];
    p.rows.assign(h, std::vector<uint8_t>(DibStride((uint32_t)w, 8), 0));
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            p.rows[(size_t)y][(size_t)x] = (uint8_t)f(x, y);
    return ImageOf(p);
}

std::set<Rgb> Colours(const Raster &r)
{
    std::set<Rgb> s;
    for (int y = 0; y < r.height; y++)
        for (int x = 0; x < r.width; x++)
            s.insert(At(r, x, y));
    return s;
}

Raster Shown(int32_t handle, int w, int h, int angle = 0, int colours = 0)
{
    Context c(w, h, colours);
    EXPECT_EQ(IMG_set_display_angle(handle, angle), 0);
    EXPECT_EQ(IMG_display_bitmap(handle, c.dc, 0, 0, w, h), 0);
    return c.Pixels();
}

bool HavePillow()
{
    return RunQuiet("/usr/bin/python3 -c \"import PIL\"");
}

// Pillow's pictures of `in`, each turned clockwise by an angle and resized
// to w x h by `filter` (NEAREST: the pixel under each centre; BOX: the
// average), from one run of Python.
struct View { int angle, w, h; };
std::vector<Raster> PillowResized(const Raster &in, const std::vector<View> &views, const char *filter)
{
    std::string source = TempPath("display-in.ppm"), script = TempPath("display-resize.py");
    EXPECT_TRUE(WritePnm(source, in));
    std::string text = "from PIL import Image\nim = Image.open('" + source + "').convert('RGB')\n"
                       "turn = {0: None, 90: Image.ROTATE_270, 180: Image.ROTATE_180, 270: Image.ROTATE_90}\n";
    for (size_t k = 0; k < views.size(); k++)
        text += "t = turn[" + std::to_string(views[k].angle) + "]\n(im.transpose(t) if t is not None else im).resize((" +
                std::to_string(views[k].w) + ", " + std::to_string(views[k].h) + "), Image." + filter + ").save('" +
                TempPath("display-out" + std::to_string(k) + ".ppm") + "')\n";
    EXPECT_TRUE(WriteFile(script, std::vector<uint8_t>(text.begin(), text.end())));
    EXPECT_TRUE(RunQuiet("/usr/bin/python3 " + script));
    std::vector<Raster> out;
    for (size_t k = 0; k < views.size(); k++) {
        std::string path = TempPath("display-out" + std::to_string(k) + ".ppm");
        out.push_back(ReadPnm(path));
        std::remove(path.c_str());
    }
    std::remove(source.c_str());
    std::remove(script.c_str());
    return out;
}

class Display : public TrnwTest {};

TEST_F(Display, NearestNeighbourPicksThePixelUnderEachCentreAsPillowDoes)
{
    if (!HavePillow())
        GTEST_SKIP() << "Pillow not installed";
    struct Depth { int bits; bool coded; } depths[] = {{1, true}, {1, false}, {4, false}, {8, false}, {24, false}, {32, false}};
    std::vector<View> views;
    for (int angle : {0, 90, 180, 270})
        for (View size : {View{0, 37, 23}, View{0, 7, 5}, View{0, 13, 31}}) // up, down, mixed
            views.push_back({angle, size.w, size.h});
    for (const Depth &depth : depths) {
        int32_t handle = ImageOf(RandomPicture(17, 11, depth.bits, 5u + (uint32_t)depth.bits));
        if (depth.coded) {
            ASSERT_EQ(IMG_dib_to_runs(handle), 0);
        }
        std::vector<Raster> expected = PillowResized(PictureOf(handle).Rgb(), views, "NEAREST");
        for (size_t k = 0; k < views.size(); k++)
            EXPECT_EQ(RasterDiff(Shown(handle, views[k].w, views[k].h, views[k].angle), expected[k]), 0)
                << depth.bits << (depth.coded ? " coded" : "") << " bits, " << views[k].angle << " degrees, "
                << views[k].w << " x " << views[k].h;
        IMG_delete_bitmap(handle);
    }
}

TEST_F(Display, GreyAndThinStrokesFromTheCoverageOfKnownPatterns)
{
    // 16 x 16 pages shown at 4 x 4: each device pixel covers 16 image pixels,
    // its grey is 255 x white / 16 rounded; in mode 3 it is black when more
    // than one of its 16 pixels is black.
    struct Case {
        const char *name;
        std::function<bool(int, int)> black;
        int grey;     // alias 2
        bool inked;   // alias 1
    } cases[] = {
        {"white", [](int, int) { return false; }, 255, false},
        {"black", [](int, int) { return true; }, 0, true},
        {"checkerboard", [](int x, int y) { return (x + y) % 2 == 0; }, 128, true},   // 127.5 up
        {"stroke a pixel wide", [](int x, int) { return x % 4 == 1; }, 191, true},   // 12/16: 191.25
        {"one dot a cell", [](int x, int y) { return x % 4 == 2 && y % 4 == 2; }, 239, false}, // 239.06
        {"two dots a cell", [](int x, int y) { return x % 4 == 2 && y % 4 >= 2; }, 223, true}, // 223.1
    };
    for (const Case &c : cases)
        for (bool coded : {true, false}) {
            SCOPED_TRACE(std::string(c.name) + (coded ? ", coded" : ", plain"));
            int32_t handle = Bilevel(16, 16, c.black, coded);
            ASSERT_EQ(IMGLOW_set_alias(2), 0);
            EXPECT_EQ(Colours(Shown(handle, 4, 4)), (std::set<Rgb>{{c.grey, c.grey, c.grey}}));
            ASSERT_EQ(IMGLOW_set_alias(1), 0);
            int ink = c.inked ? 0 : 255;
            EXPECT_EQ(Colours(Shown(handle, 4, 4)), (std::set<Rgb>{{ink, ink, ink}}));
            IMG_delete_bitmap(handle);
        }
    // Black left half: the angle decides which device rows or columns are black.
    int32_t handle = Bilevel(16, 16, [](int x, int) { return x < 8; });
    ASSERT_EQ(IMGLOW_set_alias(2), 0);
    struct Turn { int angle; int x, y; } blackCorner[] = {{0, 0, 3}, {90, 3, 0}, {180, 3, 3}, {270, 0, 3}};
    for (const Turn &t : blackCorner) {
        Raster r = Shown(handle, 4, 4, t.angle);
        // 0: columns 0-1; 90 (clockwise): rows 0-1; 180: columns 2-3; 270: rows 2-3
        bool columns = t.angle % 180 == 0;
        for (int k = 0; k < 4; k++) {
            int dark = (t.angle == 0 || t.angle == 90) ? k < 2 : k >= 2;
            Rgb want = dark ? Rgb{0, 0, 0} : Rgb{255, 255, 255};
            EXPECT_EQ(At(r, columns ? k : t.x, columns ? t.y : k), want) << t.angle << " degrees, " << k;
        }
    }
}

TEST_F(Display, GreyOfAPageMatchesPillowsBoxAverage)
{
    if (!HavePillow())
        GTEST_SKIP() << "Pillow not installed";
    uint32_t seed = 7;
    int32_t handle = Bilevel(96, 64, [&](int, int) { return (seed = seed * 1103515245u + 12345u) >> 29 < 3; });
    const std::vector<View> views = {{0, 24, 16}, {90, 16, 24}, {270, 16, 24}}; // a quarter on both axes
    std::vector<Raster> expected = PillowResized(PictureOf(handle).Rgb(), views, "BOX");
    ASSERT_EQ(IMGLOW_set_alias(2), 0);
    for (size_t k = 0; k < views.size(); k++)
        EXPECT_EQ(RasterDiff(Shown(handle, views[k].w, views[k].h, views[k].angle), expected[k], 1), 0)
            << views[k].angle << " degrees";
}

TEST_F(Display, ModeFollowsTheDeviceAndTheAliasSetting)
{
    const std::vector<Rgb> colours = {{200, 30, 40}, {10, 120, 250}, {128, 128, 128}};
    int32_t image = Indexed(8, 8, colours, [](int x, int) { return x % 3; });
    // True colour (NUMCOLORS -1, never "fewer than 4"): the palette's own colours.
    EXPECT_EQ(Colours(Shown(image, 8, 8)), (std::set<Rgb>(colours.begin(), colours.end())));
    // Two colours: dithered to black and white, by either dither mode.
    for (int mode : {1, 2}) {
        IMGLOW_set_dithermode(mode);
        std::set<Rgb> seen = Colours(Shown(image, 16, 16, 0, 2));
        EXPECT_EQ(seen, (std::set<Rgb>{{0, 0, 0}, {255, 255, 255}})) << "dither mode " << mode;
    }
    IMGLOW_set_dithermode(1);
    // A bilevel page shown at its size or larger is drawn plainly whatever the alias.
    int32_t page = Bilevel(8, 8, [](int x, int y) { return (x + y) % 3 == 0; });
    Raster plain = Shown(page, 8, 8);
    for (int alias : {1, 2}) {
        ASSERT_EQ(IMGLOW_set_alias(alias), 0);
        EXPECT_EQ(RasterDiff(Shown(page, 8, 8), plain), 0) << "alias " << alias;
        EXPECT_EQ(Colours(Shown(page, 8, 20)).size(), 2u) << "alias " << alias << ", taller only";
    }
}

TEST_F(Display, TransparencyPremultipliedAlphaAndRasterOperations)
{
    Context c(4, 1);
    int32_t blue = Indexed(4, 1, {{0, 0, 255}}, [](int, int) { return 0; });
    int32_t stripes = Indexed(4, 1, {{255, 0, 0}, {0, 255, 0}}, [](int x, int) { return x % 2; });
    ASSERT_EQ(IMG_display_bitmap(blue, c.dc, 0, 0, 4, 1), 0);
    // Index 1 (green) is transparent: the blue beneath stays there.
    ASSERT_EQ(IMG_display_bitmap_transp(stripes, c.dc, 0, 0, 4, 1, 1), 0);
    Raster r = c.Pixels();
    EXPECT_EQ(At(r, 0, 0), (Rgb{255, 0, 0}));
    EXPECT_EQ(At(r, 1, 0), (Rgb{0, 0, 255}));
    EXPECT_EQ(ImgTableGet(stripes)->transparentActive, 0);

    // 24 bits: the key is a COLORREF, 0x00BBGGRR.
    Picture p = MakePicture(2, 1, 24, 1);
    p.rows[0] = {0x30, 0x20, 0x10, 0x33, 0x22, 0x11, 0, 0}; // B, G, R of (16, 32, 48) and (17, 34, 51)
    int32_t keyed = ImageOf(p);
    ASSERT_EQ(IMG_display_bitmap_transp(keyed, c.dc, 0, 0, 2, 1, 0x00302010), 0);
    r = c.Pixels();
    EXPECT_EQ(At(r, 0, 0), (Rgb{255, 0, 0})); // kept
    EXPECT_EQ(At(r, 1, 0), (Rgb{17, 34, 51}));

    // Premultiplied B, G, R, A = 64, 0, 0, 128 over white: each component is
    // src + 255 x (255 - 128) / 255 = src + 127.
    Context white(1, 1);
    Picture alpha = MakePicture(1, 1, 32, 1);
    alpha.rows[0] = {64, 0, 0, 128};
    int32_t pma = ImageOf(alpha);
    ASSERT_EQ(IMG_display_bitmap_pma(pma, white.dc, 0, 0, 1, 1), 0);
    EXPECT_EQ(At(white.Pixels(), 0, 0), (Rgb{127, 127, 191}));
    ASSERT_EQ(IMG_display_bitmap(pma, white.dc, 0, 0, 1, 1), 0); // plainly: alpha ignored
    EXPECT_EQ(At(white.Pixels(), 0, 0), (Rgb{0, 0, 64}));

    // Raster operations over the red and blue left by the draws above.
    struct Op { uint32_t rop; std::function<int(int, int)> f; } ops[] = {
        {0x00330008, [](int s, int) { return 255 - s; }},     // NOTSRCCOPY
        {0x008800C6, [](int s, int d) { return s & d; }},     // SRCAND
        {0x00660046, [](int s, int d) { return s ^ d; }},     // SRCINVERT
        {0x00EE0086, [](int s, int d) { return s | d; }},     // SRCPAINT
    };
    int32_t grey = Indexed(4, 1, {{0x5A, 0xC3, 0x0F}}, [](int, int) { return 0; });
    for (const Op &op : ops) {
        Raster before = c.Pixels();
        ASSERT_EQ(IMGLOW_set_rop(grey, op.rop), 0);
        ASSERT_EQ(IMG_display_bitmap(grey, c.dc, 0, 0, 4, 1), 0);
        Raster after = c.Pixels();
        const int source[3] = {0x5A, 0xC3, 0x0F};
        for (size_t i = 0; i < after.rgb.size(); i++)
            EXPECT_EQ(after.rgb[i], op.f(source[i % 3], before.rgb[i])) << std::hex << op.rop << " byte " << i;
    }
}

TEST_F(Display, EntryPointResultsAndTheStoredRectangle)
{
    Context c(10, 10);
    int32_t h = Indexed(4, 4, {{0, 0, 0}}, [](int, int) { return 0; });
    void *bogus = &h; // no device context
    using Rect = std::array<int32_t, 4>;
    struct Call { const char *name; std::function<int32_t(int32_t)> call; int32_t result; Rect stored; } calls[] = {
        {"display, width 0", [&](int32_t i) { return IMG_display_bitmap(i, c.dc, 1, 2, 0, 5); }, -10, {1, 2, 0, 5}},
        {"pma, height 0", [&](int32_t i) { return IMG_display_bitmap_pma(i, c.dc, 1, 2, 3, 0); }, -10, {1, 2, 3, 0}},
        {"transparent, width 0", [&](int32_t i) { return IMG_display_bitmap_transp(i, c.dc, 1, 2, 0, 5, 0); }, -10, {1, 2, 0, 5}},
        {"aspect, width 0", [&](int32_t i) { return IMG_display_bitmap_aspect(i, c.dc, nullptr, 1, 2, 0, 5, 0); }, -10, {1, 2, 0, 5}},
        {"aspect, zoom below 0", [&](int32_t i) { return IMG_display_bitmap_aspect(i, c.dc, nullptr, 3, 3, 3, 5, -1); }, -7, {1, 2, 0, 5}},
        {"print, width 0", [&](int32_t i) { return IMG_print_bitmap(i, c.dc, 1, 2, 0, 5); }, -10, {1, 2, 0, 5}},
        {"fast print, width 0", [&](int32_t i) { return IMG_print_bitmap_fast(i, c.dc, 1, 2, 0, 5); }, -10, {1, 2, 0, 5}},
        {"display, no device context", [&](int32_t i) { return IMG_display_bitmap(i, bogus, 1, 2, 3, 5); }, -8, {1, 2, 3, 5}},
        {"palette, no device context", [&](int32_t i) { return IMG_bitmap_palette(i, nullptr); }, -8, {1, 2, 3, 5}},
        {"iac draws nothing", [&](int32_t i) { return IMG_display_bitmap_iac(i, bogus, nullptr, 4, 2, 3, 5, 9); }, 0, {4, 2, 3, 5}},
    };
    for (const Call &call : calls) {
        SCOPED_TRACE(call.name);
        EXPECT_EQ(call.call(-1), -13);
        EXPECT_EQ(call.call(h), call.result);
        const ImgDescriptor *d = ImgTableGet(h);
        EXPECT_EQ((Rect{d->displayX, d->displayY, d->displayWidth, d->displayHeight}), call.stored);
    }
    EXPECT_EQ(Colours(c.Pixels()), (std::set<Rgb>{{255, 255, 255}})); // nothing was drawn
    EXPECT_EQ(IMGLOW_set_alias(3), -7);
    EXPECT_EQ(IMG_bitmap_palette(-1, c.dc), -13);
    int32_t bad = 0;
    void *dc = &bad;
    EXPECT_EQ(IMGLOW_create_dc(0, 5, 0, &dc), -7);
    EXPECT_EQ(dc, nullptr);
    EXPECT_EQ(IMGLOW_create_dc(5, 5, 3, &dc), -7);
    EXPECT_EQ(IMGLOW_read_dc(c.dc, nullptr, 0), 300);
    EXPECT_EQ(IMGLOW_read_dc(bogus, nullptr, 0), -8);
}

TEST_F(Display, PaletteIsRealisedAndReleased)
{
    Context c(4, 4, 256);
    Surface *s = c.surface();
    void *stock = s->state.palette;
    int32_t nibbles = NewImage(4, 4, 4);
    ASSERT_EQ(IMGLOW_autocolor(1), 0);
    EXPECT_EQ(IMG_bitmap_palette(nibbles, c.dc), 0); // fewer than 5 bits with auto-colour: none
    EXPECT_EQ(ImgTableGet(nibbles)->displayPalette, nullptr);
    EXPECT_EQ(s->realizedEntries, 0);
    ASSERT_EQ(IMGLOW_autocolor(0), 0);
    EXPECT_EQ(IMG_bitmap_palette(nibbles, c.dc), 0);
    EXPECT_EQ(s->realizedEntries, 16);
    EXPECT_EQ(ImgTableGet(nibbles)->previousPalette, stock);
    int32_t photo = NewImage(4, 4, 24);
    EXPECT_EQ(IMG_bitmap_palette(photo, c.dc), 0);
    EXPECT_EQ(s->realizedEntries, 256); // the 3-3-2 cube
    // A display releases the palette it realised, and the one the image
    // held: the nibbles' palette, selected before, is selected again.
    EXPECT_EQ(IMG_display_bitmap(photo, c.dc, 0, 0, 4, 4), 0);
    EXPECT_EQ(ImgTableGet(photo)->displayPalette, nullptr);
    EXPECT_EQ(s->state.palette, ImgTableGet(nibbles)->displayPalette);
}

TEST_F(Display, DrawingStepWorksInDeviceUnitsAndRestoresTheContext)
{
    Context c(8, 8);
    Surface *s = c.surface();
    SurfaceSetMapMode(s, SURFACE_MM_ANISOTROPIC);
    SurfaceSetViewportExt(s, 2, 2); // a logical unit is 2 device pixels
    SurfaceSetWindowOrg(s, 1, 0);
    int32_t h = Indexed(2, 2, {{0, 0, 0}}, [](int, int) { return 0; });
    ASSERT_EQ(IMG_display_bitmap(h, c.dc, 2, 1, 2, 2), 0); // device (2, 2) to (6, 6)
    Raster r = c.Pixels();
    for (int y = 0; y < 8; y++)
        for (int x = 0; x < 8; x++)
            EXPECT_EQ(At(r, x, y)[0], x >= 2 && x < 6 && y >= 2 && y < 6 ? 0 : 255) << x << "," << y;
    EXPECT_EQ(s->state.mapMode, SURFACE_MM_ANISOTROPIC);
    EXPECT_EQ(s->state.windowOrgX, 1);
    EXPECT_EQ(s->savedCount, 0);
    EXPECT_EQ(ImgTableGet(h)->displayX, 2); // the caller's logical rectangle
}

TEST_F(Display, AspectDisplayFitsZoomsAndSetsTheScrollBars)
{
    // A 200 x 100 image; each case starts from a fresh image (crop whole, zoom 0).
    struct Case {
        int zoom, angle, w, h;
        std::array<int32_t, 4> display, crop;
        std::array<int32_t, 4> bars; // horizontal max, pos, vertical max, pos
        int validations;
    } cases[] = {
        // fit: 100 x 100 needs 100 x 200 / 200 = 50 rows, centred 25 down
        {0, 0, 100, 100, {0, 25, 100, 50}, {0, 0, 200, 100}, {0, 0, 0, 0}, 0},
        // fit at 90: the image is 100 wide, 200 high: 50 wide, centred 25 across
        {0, 90, 100, 100, {25, 0, 50, 100}, {0, 0, 200, 100}, {0, -1, 0, 0}, 0},
        // 200%: crop 50 x 20, its origin moved by half the change (75, 40)
        {200, 0, 100, 40, {7, 9, 100, 40}, {75, 40, 50, 20}, {150, 75, 80, 40}, 0},
        // 50%: crop 200 x 80 (origin 0, 10); one side without room: validated
        {50, 0, 100, 40, {7, 9, 100, 40}, {0, 10, 200, 80}, {0, 0, 20, 10}, 1},
        // 25%: 400 x 160 is too large: 200 wide, 200 x 40 / 100 = 80 high
        {25, 0, 100, 40, {7, 9, 100, 40}, {0, 10, 200, 80}, {0, 0, 20, 10}, 1},
        // 200% at 180: 75 + 150, 40 + 80 clamped to 150, 80; bars run backwards
        {200, 180, 100, 40, {7, 9, 100, 40}, {150, 80, 50, 20}, {150, -1, 80, -1}, 0},
        // 200% at 90: the display's sides exchanged: crop 20 x 50, origin
        // (90, 25) then + 100 - 50 on the top: (90, 50); bars exchanged
        {200, 90, 100, 40, {7, 9, 100, 40}, {90, 50, 20, 50}, {50, -1, 180, 90}, 0},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(::testing::Message() << "zoom " << k.zoom << ", " << k.angle << " degrees");
        Context c(120, 120);
        int32_t h = Indexed(200, 100, {{0, 0, 0}}, [](int, int) { return 0; });
        ASSERT_EQ(IMG_set_display_angle(h, k.angle), 0);
        ASSERT_EQ(IMG_display_bitmap_aspect(h, c.dc, c.dc, 7, 9, k.w, k.h, k.zoom), 0);
        int32_t x, y, w, hh;
        IMG_get_croprect(h, &x, &y, &w, &hh);
        EXPECT_EQ((std::array<int32_t, 4>{x, y, w, hh}), k.crop);
        const ImgDescriptor *d = ImgTableGet(h);
        EXPECT_EQ((std::array<int32_t, 4>{d->displayX, d->displayY, d->displayWidth, d->displayHeight}), k.display);
        const Surface *s = c.surface();
        EXPECT_EQ((std::array<int32_t, 4>{s->scroll[0].max, s->scroll[0].pos, s->scroll[1].max, s->scroll[1].pos}),
                  k.bars);
        EXPECT_EQ(s->validations, k.validations);
        Raster r = c.Pixels(); // the picture fills the display rectangle
        EXPECT_EQ(At(r, k.display[0], k.display[1]), (Rgb{0, 0, 0}));
        EXPECT_EQ(At(r, k.display[0] + k.display[2] - 1, k.display[1] + k.display[3] - 1), (Rgb{0, 0, 0}));
        IMG_delete_bitmap(h);
    }
}

// A device that keeps the size of each band handed to it.
class CountingDevice final : public GdiDevice {
  public:
    std::vector<size_t> bands;
    void LPtoDP(int64_t *, int64_t *) override {}
    int Save() override { return 1; }
    bool Restore(int) override { return true; }
    void UseDeviceUnits() override {}
    int32_t DeviceCaps(int) override { return -1; }
    bool ClipBox(GdiRect *box) override { return *box = {0, 0, 5000, 5000}, true; }
    void *CreatePalette(const uint8_t *, int) override { return this; }
    void *SelectPalette(void *) override { return this; }
    int RealizePalette() override { return 0; }
    bool DeleteObject(void *) override { return true; }
    bool StretchDIBits(int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, const GdiDib &dib,
                       uint32_t) override
    {
        bands.push_back(40 + 4 * dib.header.biClrUsed + dib.header.biSizeImage);
        return true;
    }
    bool AlphaBlend(int32_t, int32_t, const GdiDib &) override { return true; }
};

TEST_F(Display, BandsStayWithinTheBandSizeExceptWholeBilevelDisplays)
{
    int32_t photo = NewImage(700, 300, 24), page = Bilevel(2000, 1200, [](int x, int) { return x % 7 == 0; });
    struct Case { int32_t image; int mode, print; int w, h; size_t count; } cases[] = {
        {photo, 0, 0, 638, 300, 9},  // 24-bit rows of 1916 bytes: (65280 - 40) / 1916 = 34 a band
        {page, 0, 0, 638, 825, 1},   // a bilevel display: at once
        {page, 3, 0, 500, 300, 1},
        {page, 0, 1, 638, 825, 2},   // printed: (65280 - 48) / 80 = 815 rows a band
        {page, 2, 0, 500, 300, 3},   // grey: (65280 - 1064) / 500 = 128 rows a band
    };
    for (const Case &k : cases) {
        CountingDevice device;
        RenderRequest request = {ImgTableGet(k.image), &device, k.mode, k.print, 1, 0, 0, k.w, k.h, 0, 0};
        ASSERT_EQ(RenderCrop(request), 0);
        EXPECT_EQ(device.bands.size(), k.count) << "mode " << k.mode << ", print " << k.print;
        if (k.count > 1) {
            EXPECT_LE(*std::max_element(device.bands.begin(), device.bands.end()), 65280u);
        }
    }
}

TEST_F(Display, FastPrintShowsWhatThePrintInBandsShows)
{
    int32_t page = Bilevel(300, 200, [](int x, int y) { return (x * y) % 11 == 0; });
    int32_t photo = ImageOf(RandomPicture(90, 70, 24, 3));
    for (int32_t h : {page, photo})
        for (int angle : {0, 90}) {
            ASSERT_EQ(IMG_set_croprect(h, 5, 7, 60, 50), 0);
            ASSERT_EQ(IMG_set_display_angle(h, angle), 0);
            Context fast(80, 70), banded(80, 70);
            ASSERT_EQ(IMG_print_bitmap_fast(h, fast.dc, 3, 4, 71, 59), 0);
            ASSERT_EQ(IMG_print_bitmap(h, banded.dc, 3, 4, 71, 59), 0);
            EXPECT_EQ(RasterDiff(fast.Pixels(), banded.Pixels()), 0) << "angle " << angle;
        }
}

TEST_F(Display, DecodeDrawsTheRowsAsTheyArrive)
{
    // Bottom-up BMP rows (a 1-bit page among them, whose coded rows are
    // turned at the end) and top-down Group 4 rows, drawn every row, every
    // 5 rows and on the default schedule, end as one display of the image.
    struct Case { int bits; int32_t type; } cases[] = {{1, IMG_TYPE_BMP}, {1, IMG_TYPE_TIFF_G4}, {8, IMG_TYPE_BMP}};
    std::string path = TempPath("display-decode.img");
    for (const Case &k : cases) {
        int32_t source = ImageOf(RandomPicture(41, 37, k.bits, 11));
        ASSERT_TRUE(WriteFile(path, SavedImage(source, k.type)));
        IMG_delete_bitmap(source);
        for (int every : {0, 1, 5}) {
            SCOPED_TRACE(::testing::Message() << k.bits << " bits, type " << k.type << ", every " << every);
            Context c(30, 20), expected(30, 20);
            int32_t h = IMG_decompress_bitmap_display(path.c_str(), c.dc, 2, 1, 25, 17, every);
            ASSERT_GE(h, 0);
            ASSERT_EQ(IMG_display_bitmap(h, expected.dc, 2, 1, 25, 17), 0);
            EXPECT_EQ(RasterDiff(c.Pixels(), expected.Pixels()), 0);
            IMG_delete_bitmap(h);
        }
        EXPECT_EQ(IMG_decompress_bitmap_display(path.c_str(), nullptr, 0, 0, 5, 5, 0), -8);
    }
    std::remove(path.c_str());
    Context c(1, 1);
    EXPECT_EQ(IMG_decompress_bitmap_display(TempPath("display-missing.bmp").c_str(), c.dc, 0, 0, 1, 1, 0), -2);
    EXPECT_EQ(ImgTableCount(), 0); // a failed decode leaves no image
}

#ifdef TRNW_TOOL_PATH
TEST_F(Display, ToolViewSavesWhatTheDisplayShows)
{
    int32_t page = Bilevel(64, 48, [](int x, int y) { return (x / 3 + y / 5) % 2 == 0; }, false);
    std::string in = TempPath("display-view.bmp"), out = TempPath("display-view-out.bmp");
    ASSERT_TRUE(WriteFile(in, SavedImage(page, IMG_TYPE_BMP)));
    ASSERT_TRUE(RunQuiet(std::string(TRNW_TOOL_PATH) + " view " + in + " " + out + " --zoom 25 --alias 2 --angle 90"));
    ASSERT_EQ(IMGLOW_set_alias(2), 0);
    EXPECT_EQ(RasterDiff(DecodeFile(out), Shown(page, 12, 16, 90)), 0);
    std::remove(in.c_str());
    std::remove(out.c_str());
}
#endif

#ifdef _WIN32
// The same cases on a real memory device context with a DIB section.
TEST_F(Display, RealGdiShowsWhatThePortableContextShows)
{
    const int w = 23, h = 17;
    HDC dc = CreateCompatibleDC(NULL);
    BITMAPINFO info = {};
    info.bmiHeader = {sizeof(BITMAPINFOHEADER), w, -h, 1, 24, BI_RGB, 0, 0, 0, 0, 0};
    void *bits = nullptr;
    HBITMAP section = CreateDIBSection(dc, &info, DIB_RGB_COLORS, &bits, NULL, 0);
    ASSERT_TRUE(section && bits);
    HGDIOBJ old = SelectObject(dc, section);
    int32_t page = Bilevel(70, 50, [](int x, int y) { return (x * 3 + y * y) % 7 < 2; });
    int32_t photo = ImageOf(RandomPicture(31, 29, 8, 2));
    for (int32_t image : {page, photo})
        for (int alias : {0, 1, 2})
            for (int angle : {0, 90, 180, 270}) {
                SCOPED_TRACE(::testing::Message() << "alias " << alias << ", " << angle << " degrees");
                PatBlt(dc, 0, 0, w, h, WHITENESS);
                IMGLOW_set_alias(alias);
                IMG_set_display_angle(image, angle);
                ASSERT_EQ(IMG_display_bitmap(image, dc, 1, 2, w - 3, h - 4), 0);
                Context portable(w, h);
                ASSERT_EQ(IMG_display_bitmap(image, portable.dc, 1, 2, w - 3, h - 4), 0);
                Raster real = portable.Pixels();
                size_t stride = ((size_t)w * 3 + 3) & ~(size_t)3;
                for (int y = 0; y < h; y++)
                    for (int x = 0; x < w; x++)
                        for (int k = 0; k < 3; k++)
                            real.rgb[(size_t)(y * w + x) * 3 + k] = static_cast<uint8_t *>(bits)[y * stride + 3 * x + 2 - k];
                EXPECT_EQ(RasterDiff(real, portable.Pixels()), 0);
            }
    SelectObject(dc, old);
    DeleteObject(section);
    DeleteDC(dc);
}
#endif

} // namespace
