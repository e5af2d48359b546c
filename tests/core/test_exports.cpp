/* The shared library exports the public interface and nothing else: it is
 * loaded at run time and called through its exported names. */
#include "support/support.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace {

struct Library {
#ifdef _WIN32
    HMODULE module = LoadLibraryA(TRNW_DLL_PATH);
    void *Find(const char *name) { return module ? (void *)GetProcAddress(module, name) : nullptr; }
    ~Library() { if (module) FreeLibrary(module); }
#else
    // Never unloaded: the blocks the library keeps for the process stay reachable.
    void *module = dlopen(TRNW_DLL_PATH, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    void *Find(const char *name) { return module ? dlsym(module, name) : nullptr; }
    ~Library() { if (module) dlclose(module); }
#endif
};

// The version and handle calls work through their exported names; internal
// routines are not exported.
TEST(Exports, PublicCallsOnlyThroughTheSharedLibrary)
{
    Library library;
    ASSERT_NE(library.module, nullptr) << TRNW_DLL_PATH;
    typedef int32_t(IMGAPI * VersionFunction)(int32_t *, int32_t *);
    typedef int32_t(IMGAPI * Info)(int32_t, int32_t *, int32_t *, int32_t *);
    typedef int32_t(IMGAPI * Angle)(int32_t, int32_t);
    auto version = reinterpret_cast<VersionFunction>(library.Find("IMG_ifl_version"));
    auto info = reinterpret_cast<Info>(library.Find("IMG_bitmap_info"));
    auto angle = reinterpret_cast<Angle>(library.Find("IMG_set_display_angle"));
    ASSERT_TRUE(version && info && angle);
    int32_t major = 0, minor = 0, a, b, c;
    EXPECT_EQ(version(&major, &minor), 0);
    EXPECT_EQ(major, 6);
    EXPECT_EQ(minor, 12);
    EXPECT_EQ(info(-1, &a, &b, &c), IMG_ERR_HANDLE);
    EXPECT_EQ(angle(7, 90), IMG_ERR_HANDLE);
    for (const char *name : {"ImgRead", "ImgAlloc", "ImgTableGet", "RunEncodeRow", "PlatformAlloc"})
        EXPECT_EQ(library.Find(name), nullptr) << name;
}

// The shared library's own PNG writer and reader, through its exports: a
// picture saved as PNG and read back is the picture.
TEST(Exports, SharedLibraryWritesAndReadsPng)
{
    Library library;
    typedef int32_t(IMGAPI * Decode)(void *, uint32_t, int32_t);
    typedef int32_t(IMGAPI * Save)(int32_t, void *, uint32_t, int32_t);
    typedef int32_t(IMGAPI * Delete)(int32_t);
    auto decode = reinterpret_cast<Decode>(library.Find("IMG_decompress_bitmap_mem_size"));
    auto save = reinterpret_cast<Save>(library.Find("IMG_save_bitmap_mem_size"));
    auto remove = reinterpret_cast<Delete>(library.Find("IMG_delete_bitmap"));
    ASSERT_TRUE(decode && save && remove);
    Picture p = MakePicture(29, 7, 24, 5);
    std::vector<uint8_t> file = Saved(p, IMG_TYPE_BMP), png(1 << 16), bmp(1 << 16);
    int32_t h = decode(file.data(), (uint32_t)file.size(), 0);
    int32_t n = save(h, png.data(), (uint32_t)png.size(), IMG_TYPE_PNG);
    int32_t back = decode(png.data(), (uint32_t)n, 0);
    ASSERT_GT(save(back, bmp.data(), (uint32_t)bmp.size(), IMG_TYPE_BMP), 0);
    EXPECT_EQ(std::string(png.begin() + 1, png.begin() + 4), "PNG");
    EXPECT_EQ(RasterDiff(DecodeMemory(bmp), p.Rgb()), 0);
    remove(h), remove(back);
}

} // namespace
