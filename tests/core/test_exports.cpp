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
    void *module = dlopen(TRNW_DLL_PATH, RTLD_NOW | RTLD_LOCAL);
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

} // namespace
