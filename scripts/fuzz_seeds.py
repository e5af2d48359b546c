#!/usr/bin/env python3
"""fuzz_seeds.py OUT: seed inputs for the fuzz targets, written into OUT/<target>/.

Small pictures (8 to 64 pixels a side, a few fax rows 1728 wide) of every
format and variant the library reads, made by independent tools: libtiff's
tiffcp, ImageMagick, netpbm, Pillow, epstool with Ghostscript.  A tool that
is absent is skipped quietly, and so are the seeds it would have made.  The
base pictures are portable anymaps written here from arithmetic patterns.
Targets whose input starts with option bytes (page, width, mode, ...) get
those bytes in front of the tool's output, and the codec targets get the
coded strip alone, cut out of a one-strip TIFF.  Takes a few seconds: the
tool runs go three at a time.  scripts/fuzz.sh runs this and merges each
target's seeds into its corpus with libFuzzer's -merge=1.
"""
import os
import shutil
import struct
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor

OUT = sys.argv[1] if len(sys.argv) > 1 else "build-fuzz/seeds"
WORK = os.path.join(OUT, "work")


def which(*names):
    for name in names:
        path = shutil.which(name)
        if path:
            return path
    return None


# ImageMagick's own binary first: a `convert` on the PATH may be a wrapper.  One thread: its
# worker threads only wait on a busy machine.
MAGICK = which("convert-im6.q16", "convert-im6", "magick", "convert")
os.environ.setdefault("OMP_NUM_THREADS", "1")


def work(name):
    return os.path.join(WORK, name)


def run(args, stdout=None):
    """Runs a tool; True when it exits 0 (and wrote stdout's file, if any)."""
    if not args[0]:
        return False
    try:
        if stdout:
            with open(stdout, "wb") as f:
                ok = subprocess.run(args, stdout=f, stderr=subprocess.DEVNULL, timeout=30).returncode == 0
            return ok and os.path.getsize(stdout) > 0
        return subprocess.run(args, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=30).returncode == 0
    except (OSError, subprocess.SubprocessError):
        return False


def tool(name, *args, stdout=None):
    return run([which(name), *args], stdout=stdout)


def magick(*args):
    return run([MAGICK, *args])


def read(name):
    try:
        with open(work(name), "rb") as f:
            return f.read()
    except OSError:
        return None


def seed(target, name, data, prefix=b""):
    """Writes one seed: the option bytes, then the data (nothing when the tool failed)."""
    if data:
        os.makedirs(os.path.join(OUT, target), exist_ok=True)
        with open(os.path.join(OUT, target, name), "wb") as f:
            f.write(prefix + data)


def parallel(jobs):
    with ThreadPoolExecutor(max_workers=3) as pool:
        for future in [pool.submit(job) for job in jobs]:
            future.result()


# ---- base pictures: portable anymaps from arithmetic ----

def bilevel(x, y):
    """Black text-like blocks, a diagonal and a frame: many short and long runs."""
    return (x // 3 + y // 2) % 5 == 0 or (x - y) % 11 == 0 or (5 < x < 14 and 4 < y < 9) or y == 0


def pbm(width, height):
    rows = []
    for y in range(height):
        bits = [1 if bilevel(x, y) else 0 for x in range(width)] + [0] * 7
        rows.append(bytes(sum(b << (7 - i) for i, b in enumerate(bits[k:k + 8]))
                          for k in range(0, width, 8)))
    return b"P4\n%d %d\n" % (width, height) + b"".join(rows)


def pgm(width, height, maxval):
    pixels = bytes((x * 17 + y * 29 + (x * y) % 7) % (maxval + 1) for y in range(height) for x in range(width))
    return b"P5\n%d %d\n%d\n" % (width, height, maxval) + pixels


def ppm(width, height, colours):
    """colours 0: every pixel its own colour; else that many colours from a table."""
    table = [((i * 37) % 256, (i * 91 + 40) % 256, (i * 53 + 7) % 256) for i in range(max(colours, 1))]
    pixels = bytearray()
    for y in range(height):
        for x in range(width):
            if colours:
                pixels += bytes(table[(x // 3 + y * 5) % colours])
            else:
                pixels += bytes((x * 255 // width, y * 255 // height, (x * y * 7) % 256))
    return b"P6\n%d %d\n255\n" % (width, height) + bytes(pixels)


BASES = {
    "bw.pbm": pbm(40, 24), "tall.pbm": pbm(16, 64), "fax.pbm": pbm(1728, 8),
    "grey4.pgm": pgm(24, 16, 15), "grey8.pgm": pgm(24, 16, 255),
    "pal16.ppm": ppm(24, 16, 16), "pal200.ppm": ppm(32, 20, 200), "rgb.ppm": ppm(24, 16, 0),
}


# ---- TIFF: base files, then every compression, layout and byte order through tiffcp ----

# Stage one: netpbm's TIFF and GIF files (palette files for ImageMagick to keep as they are:
# it is slow to make a palette itself).
BASE_FILES = [
    ("bw.tif", ["pnmtotiff", "bw.pbm"]), ("fax.tif", ["pnmtotiff", "fax.pbm"]),
    ("grey4.tif", ["pnmtotiff", "grey4.pgm"]), ("grey8.tif", ["pnmtotiff", "grey8.pgm"]),
    ("pal8.tif", ["pnmtotiff", "pal200.ppm"]), ("rgb.tif", ["pnmtotiff", "-truecolor", "rgb.ppm"]),
    ("pal16.gif", ["ppmtogif", "pal16.ppm"]), ("pal200.gif", ["ppmtogif", "pal200.ppm"]),
]


def netpbm(output, args):
    return lambda: tool(args[0], *[work(a) if "." in a else a for a in args[1:]], stdout=work(output))


# (output, base, tiffcp options)
TIFF_VARIANTS = [
    ("bw_none.tif", "bw.tif", ["-c", "none"]),
    ("bw_packbits.tif", "bw.tif", ["-c", "packbits"]),
    ("bw_lzw.tif", "bw.tif", ["-c", "lzw"]),
    ("bw_g3.tif", "bw.tif", ["-c", "g3:1d"]),
    ("bw_g3_fill.tif", "bw.tif", ["-c", "g3:1d:fill"]),
    ("bw_g3_2d.tif", "bw.tif", ["-c", "g3:2d"]),
    ("bw_g4.tif", "bw.tif", ["-c", "g4"]),
    ("bw_g4_strips.tif", "bw.tif", ["-c", "g4", "-r", "8"]),
    ("bw_g4_lsb.tif", "bw.tif", ["-c", "g4", "-f", "lsb2msb"]),
    ("bw_packbits_lsb.tif", "bw.tif", ["-c", "packbits", "-f", "lsb2msb"]),
    ("bw_g3_2d_mm.tif", "bw.tif", ["-B", "-c", "g3:2d"]),
    ("bw_none_tiles.tif", "bw.tif", ["-c", "none", "-t", "-w", "16", "-l", "16"]),
    ("bw_g4_tiles.tif", "bw.tif", ["-c", "g4", "-t", "-w", "16", "-l", "16"]),
    ("grey4_none.tif", "grey4.tif", ["-c", "none"]),
    ("grey4_packbits.tif", "grey4.tif", ["-c", "packbits"]),
    ("grey8_lzw_predictor.tif", "grey8.tif", ["-c", "lzw:2"]),
    ("grey8_packbits_strips.tif", "grey8.tif", ["-c", "packbits", "-r", "4"]),
    ("grey8_tiles.tif", "grey8.tif", ["-c", "lzw", "-t", "-w", "16", "-l", "16"]),
    ("pal8_none.tif", "pal8.tif", ["-c", "none"]),
    ("pal8_lzw_mm.tif", "pal8.tif", ["-B", "-c", "lzw"]),
    ("rgb_none.tif", "rgb.tif", ["-c", "none"]),
    ("rgb_lzw.tif", "rgb.tif", ["-c", "lzw"]),
    ("rgb_lzw_predictor.tif", "rgb.tif", ["-c", "lzw:2"]),
    ("rgb_packbits_mm.tif", "rgb.tif", ["-B", "-c", "packbits"]),
    ("rgb_planar.tif", "rgb.tif", ["-c", "none", "-p", "separate"]),
    ("rgb_tiles.tif", "rgb.tif", ["-c", "none", "-t", "-w", "16", "-l", "16"]),
    ("rgb_jpeg.tif", "rgb.tif", ["-c", "jpeg", "-r", "16"]),
    ("rgb_jpeg_rgb.tif", "rgb.tif", ["-c", "jpeg:r", "-r", "8"]),
    ("grey8_jpeg.tif", "grey8.tif", ["-c", "jpeg", "-r", "8"]),
]

# One-strip files whose strip the codec targets take: (output, base, compression)
STRIP_SOURCES = [
    ("strip_g3.tif", "fax.tif", "g3:1d"), ("strip_g3_2d.tif", "fax.tif", "g3:2d"),
    ("strip_g4.tif", "fax.tif", "g4"), ("strip_bw_g4.tif", "bw.tif", "g4"),
    ("strip_bw_g3_2d.tif", "bw.tif", "g3:2d"),
    ("strip_lzw_bw.tif", "bw.tif", "lzw"), ("strip_lzw_grey8.tif", "grey8.tif", "lzw"),
    ("strip_lzw_rgb.tif", "rgb.tif", "lzw"),
]


def tiffcp(output, base, options):
    return lambda: tool("tiffcp", *options, work(base), work(output))


def tiff_strip(data):
    """The first strip of a TIFF (either byte order) and its width and height."""
    order = "<" if data[:2] == b"II" else ">"
    ifd = struct.unpack(order + "I", data[4:8])[0]
    count = struct.unpack(order + "H", data[ifd:ifd + 2])[0]
    tags = {}
    for i in range(count):
        tag, kind, n, value = struct.unpack(order + "HHI4s", data[ifd + 2 + 12 * i:ifd + 14 + 12 * i])
        fmt = order + ("H" if kind == 3 else "I")
        tags[tag] = struct.unpack(fmt, value[:struct.calcsize(fmt)])[0] if n == 1 else None
    offset, length = tags.get(273), tags.get(279)
    if offset is None or length is None:
        return None, 0, 0
    return data[offset:offset + length], tags.get(256, 0), tags.get(257, 0)


# ---- the other formats: (format, seed name, tool run, file it writes) ----

def other_formats():
    jobs = []

    def add(fmt, name, make, output):
        jobs.append((fmt, name, make, output))

    # BMP: 1, 4, 8, 24, 32 bits, RLE8, the OS/2 header.
    add("bmp", "magick_4bit.bmp", lambda: magick(work("pal16.gif"), "-compress", "none", "bmp3:" + work("m4.bmp")), "m4.bmp")
    add("bmp", "magick_8bit.bmp", lambda: magick(work("pal200.gif"), "-compress", "none", "bmp3:" + work("m8.bmp")), "m8.bmp")
    add("bmp", "magick_rle8.bmp", lambda: magick(work("pal200.gif"), "-compress", "RLE", "bmp3:" + work("r8.bmp")), "r8.bmp")
    add("bmp", "magick_24bit.bmp", lambda: magick(work("rgb.ppm"), "bmp3:" + work("m24.bmp")), "m24.bmp")
    add("bmp", "magick_32bit_v5.bmp", lambda: magick(work("rgb.ppm"), "-alpha", "set", "bmp:" + work("m32.bmp")), "m32.bmp")
    add("bmp", "netpbm_os2_4bit.bmp", lambda: tool("ppmtobmp", "-os2", work("pal16.ppm"), stdout=work("os2.bmp")), "os2.bmp")
    add("bmp", "netpbm_1bit.bmp", lambda: tool("ppmtobmp", "-bpp=1", work("bw.pbm"), stdout=work("n1.bmp")), "n1.bmp")
    # GIF (Pillow adds tables of 2 and 4 colours and a second image): 16 and 256 colours,
    # interlaced.
    add("gif", "netpbm_16colours.gif", lambda: True, "pal16.gif")
    add("gif", "netpbm_200colours.gif", lambda: True, "pal200.gif")
    add("gif", "magick_16colours_interlaced.gif", lambda: magick(work("pal16.gif"), "-interlace", "GIF", "gif:" + work("g16i.gif")), "g16i.gif")
    # The 4-bit palette TIFF.
    add("tiff", "magick_pal4.tif", lambda: magick(work("pal16.gif"), "tif:" + work("pal4.tif")), "pal4.tif")
    # PCX: 1 bit, 4 planes of 16 colours, 4-bit packed, 8-bit palette, 24 bits in 3 planes.
    add("pcx", "netpbm_1bit.pcx", lambda: tool("ppmtopcx", work("bw.pbm"), stdout=work("p1.pcx")), "p1.pcx")
    add("pcx", "netpbm_4planes.pcx", lambda: tool("ppmtopcx", work("pal16.ppm"), stdout=work("p4.pcx")), "p4.pcx")
    add("pcx", "netpbm_4bit_packed.pcx", lambda: tool("ppmtopcx", "-packed", work("pal16.ppm"), stdout=work("p4p.pcx")), "p4p.pcx")
    add("pcx", "netpbm_8bit.pcx", lambda: tool("ppmtopcx", work("pal200.ppm"), stdout=work("p8.pcx")), "p8.pcx")
    add("pcx", "netpbm_24bit.pcx", lambda: tool("ppmtopcx", "-24bit", work("rgb.ppm"), stdout=work("p24.pcx")), "p24.pcx")
    add("pcx", "magick_8bit.pcx", lambda: magick(work("grey8.pgm"), "pcx:" + work("m8.pcx")), "m8.pcx")
    # DCX: two pages.
    add("dcx", "magick_two_pages.dcx", lambda: magick(work("bw.pbm"), work("pal16.ppm"), "dcx:" + work("two.dcx")), "two.dcx")
    # Targa: colour-mapped, grey, 16, 24 and 32 bits, raw and RLE, both row orders.
    add("tga", "netpbm_cmap_rle.tga", lambda: tool("pamtotga", "-cmap", work("pal16.ppm"), stdout=work("t8c.tga")), "t8c.tga")
    add("tga", "netpbm_grey_raw.tga", lambda: tool("pamtotga", "-norle", work("grey8.pgm"), stdout=work("t8g.tga")), "t8g.tga")
    add("tga", "netpbm_24bit_rle.tga", lambda: tool("pamtotga", "-rgb", work("rgb.ppm"), stdout=work("t24r.tga")), "t24r.tga")
    add("tga", "magick_16bit.tga", lambda: magick(work("pal16.ppm"), "-depth", "5", "tga:" + work("t16.tga")), "t16.tga")
    add("tga", "magick_16bit_rle.tga", lambda: magick(work("pal16.ppm"), "-depth", "5", "-compress", "RLE", "tga:" + work("t16r.tga")), "t16r.tga")
    add("tga", "magick_24bit_top_first.tga", lambda: magick(work("rgb.ppm"), "-orient", "TopLeft", "tga:" + work("t24t.tga")), "t24t.tga")
    add("tga", "magick_32bit_rle.tga", lambda: magick(work("rgb.ppm"), "-alpha", "set", "-compress", "RLE", "tga:" + work("t32r.tga")), "t32r.tga")
    add("tga", "magick_32bit_raw.tga", lambda: magick(work("rgb.ppm"), "-alpha", "set", "tga:" + work("t32.tga")), "t32.tga")
    # XBM: X11 and X10 forms.
    add("xbm", "netpbm_x11.xbm", lambda: tool("pbmtoxbm", work("bw.pbm"), stdout=work("x11.xbm")), "x11.xbm")
    add("xbm", "netpbm_x10.xbm", lambda: tool("pbmtoxbm", "-x10", work("tall.pbm"), stdout=work("x10.xbm")), "x10.xbm")
    # EPS: DOS EPS files with TIFF previews of several kinds (Ghostscript renders them).
    for device in ("tiffg4", "tiffpack", "tifflzw", "tiffgray", "tiff24nc"):
        add("eps", "epstool_%s.eps" % device,
            lambda d=device: tool("epstool", "--add-tiff-preview", "--device", d, work("plain.eps"), work(d + ".eps")),
            device + ".eps")
    add("eps", "epstool_tiff4.eps", lambda: tool("epstool", "--add-tiff4-preview", work("plain.eps"), work("t4.eps")), "t4.eps")
    # PNG: 2-bit grey, 4-bit palette, 16-bit RGBA interlaced, grey with alpha (Pillow adds
    # 1-bit grey, a palette with tRNS and pHYs, RGB and 16-bit grey).
    png = lambda base, out, *options: lambda: magick(work(base), *options, work(out))
    add("png", "magick_grey2.png", png("bw.pbm", "g2.png", "-define", "png:color-type=0", "-define", "png:bit-depth=2"), "g2.png")
    add("png", "magick_pal4.png", lambda: magick(work("pal16.ppm"), "-define", "png:bit-depth=4", "png8:" + work("p4.png")), "p4.png")
    add("png", "magick_rgba16_interlaced.png", png("rgb.ppm", "a16.png", "-define", "png:color-type=6",
                                                    "-define", "png:bit-depth=16", "-interlace", "PNG"), "a16.png")
    add("png", "magick_grey_alpha.png", png("grey8.pgm", "ga.png", "-define", "png:color-type=4"), "ga.png")
    # JPEG: grey, colour, progressive, restart markers, RGB-coded, CMYK, EXIF.
    for name, options, base in (("cjpeg_grey.jpg", ["-grayscale"], "grey8.pgm"), ("cjpeg_rgb.jpg", [], "rgb.ppm"),
                                ("cjpeg_progressive.jpg", ["-progressive"], "rgb.ppm"),
                                ("cjpeg_restarts.jpg", ["-restart", "1", "-quality", "30"], "pal16.ppm"),
                                ("cjpeg_rgb_coded.jpg", ["-rgb", "-sample", "2x1"], "rgb.ppm")):
        add("jpeg", name, lambda o=options, b=base, n=name: tool("cjpeg", *o, work(b), stdout=work(n)), name)
    add("jpeg", "magick_cmyk.jpg", lambda: magick(work("rgb.ppm"), "-colorspace", "CMYK", "jpg:" + work("mc.jpg")), "mc.jpg")
    add("jpeg", "magick_density_cm.jpg", lambda: magick(work("grey8.pgm"), "-density", "300", "-units",
                                                        "PixelsPerCentimeter", "jpg:" + work("md.jpg")), "md.jpg")
    # Raw fax: netpbm's Group 3 stream.
    add("fax", "netpbm.g3", lambda: tool("pbmtog3", work("fax.pbm"), stdout=work("n.g3")), "n.g3")
    return jobs


PLAIN_EPS = (b"%!PS-Adobe-3.0 EPSF-3.0\n%%BoundingBox: 0 0 24 16\n%%EndComments\n"
             b"newpath 2 2 moveto 22 14 lineto 2 14 lineto closepath 0.4 setgray fill\n"
             b"1 0 0 setrgbcolor 4 4 6 6 rectfill showpage\n%%EOF\n")


def pillow_seeds():
    """Pillow's writers: TIFF with the CCITT run-length coding (compression 2), GIF with
    extensions, Targa, BMP, PCX, XBM and PNG through a second, independent encoder."""
    try:
        from PIL import Image
    except ImportError:
        return
    bw = Image.open(work("bw.pbm")).convert("1")
    bw.load()
    grey = Image.open(work("grey8.pgm"))
    rgb = Image.open(work("rgb.ppm"))
    pal = Image.open(work("pal16.ppm")).convert("P", palette=Image.ADAPTIVE, colors=16)

    def save(image, name, **options):
        try:
            image.save(work(name), **options)
        except (OSError, ValueError, KeyError):
            pass

    save(bw, "pil_ccitt.tif", compression="tiff_ccitt")
    save(Image.open(work("fax.pbm")).convert("1"), "pil_fax_ccitt.tif", compression="tiff_ccitt")
    save(pal, "pil_16_plain.gif", interlace=0, transparency=3, comment=b"seed")
    save(bw.convert("P"), "pil_2colours.gif", interlace=0)
    save(rgb.quantize(4), "pil_4colours.gif")
    save(pal, "pil_16_frames.gif", save_all=True, append_images=[pal.transpose(Image.FLIP_TOP_BOTTOM)],
         loop=0, duration=50, interlace=1)
    save(grey, "pil_grey_rle.tga", compression="tga_rle")
    save(pal, "pil_cmap.tga")
    save(rgb.convert("RGBA"), "pil_32_top_first.tga", orientation=1)
    save(pal, "pil_8bit.bmp")
    save(bw, "pil_1bit.bmp")
    save(rgb.convert("RGBA"), "pil_32bit.bmp")
    save(bw, "pil_1bit.pcx")
    save(rgb, "pil_24bit.pcx")
    save(bw, "pil.xbm")
    save(bw, "pil_1bit.png")
    save(pal, "pil_pal_trns_phys.png", transparency=3, dpi=(300, 150))
    save(rgb, "pil_rgb.png")
    save(grey.convert("I").point(lambda v: v * 257), "pil_grey16.png")
    exif = Image.Exif()
    exif[282], exif[283], exif[296] = 300, 150, 2
    save(rgb, "pil_exif.jpg", exif=exif.tobytes(), dpi=(0, 0))
    save(rgb.convert("CMYK"), "pil_cmyk.jpg")
    save(grey, "pil_progressive.jpg", progressive=True)


PILLOW_SEEDS = {"tiff": ["pil_ccitt.tif"],
                "gif": ["pil_16_plain.gif", "pil_16_frames.gif", "pil_2colours.gif", "pil_4colours.gif"],
                "tga": ["pil_grey_rle.tga", "pil_cmap.tga", "pil_32_top_first.tga"],
                "bmp": ["pil_1bit.bmp", "pil_8bit.bmp", "pil_32bit.bmp"], "pcx": ["pil_1bit.pcx", "pil_24bit.pcx"],
                "xbm": ["pil.xbm"], "png": ["pil_1bit.png", "pil_pal_trns_phys.png", "pil_rgb.png", "pil_grey16.png"], "jpeg": ["pil_exif.jpg", "pil_cmyk.jpg", "pil_progressive.jpg"]}


# ---- the targets' inputs ----

def ccitt_prefix(which, mode3, width, rows, fill_order=1, first_row=0):
    """fuzz_ccitt's 8 option bytes: decoder, width, height, first row (bit 7 of byte 4
    picks mode 3 for the 1-D decoder), fill order, no early stop, row count."""
    byte4 = (first_row if first_row else 0) | (0x80 if mode3 else 0)
    return bytes([which, (width - 1) & 255, (width - 1) >> 8, rows - 1, byte4,
                  1 if fill_order == 2 else 0, 0, rows - 1])


def run_record(width, y):
    """One row of the bilevel pattern as a run record: length word, the positions where
    the colour changes (the row starts white), then the width three times."""
    changes, white = [], True
    for x in range(width):
        if bilevel(x, y) == white:
            changes.append(x)
            white = not white
    words = changes + [width] * 3
    return struct.pack("<%dH" % (len(words) + 1), 2 * (len(words) + 1), *words)


def codec_seeds():
    # fuzz_ccitt: the strips of one-strip Group 3 and 4 files, for each decoder and for
    # the raw fax entry point (byte 0 = 3; byte 7 picks its type: 2, 3, 4).
    for name, which, mode3, fax_type in (("strip_g3.tif", 0, True, 1), ("strip_g3_2d.tif", 1, False, 1),
                                         ("strip_g4.tif", 2, False, 2), ("strip_bw_g4.tif", 2, False, 2),
                                         ("strip_bw_g3_2d.tif", 1, False, 1)):
        data = read(name)
        if not data:
            continue
        strip, width, height = tiff_strip(data)
        seed("fuzz_ccitt", name.replace(".tif", ""), strip, ccitt_prefix(which, mode3, width, height))
        prefix = bytearray(ccitt_prefix(3, False, width, height))
        prefix[7] = fax_type
        seed("fuzz_ccitt", name.replace(".tif", "_fax_entry"), strip, bytes(prefix))
    for name in ("pil_ccitt.tif", "pil_fax_ccitt.tif"):
        data = read(name)
        if data:
            strip, width, height = tiff_strip(data)
            seed("fuzz_ccitt", name.replace(".tif", "_mode2"), strip, ccitt_prefix(0, False, width, height))
    raw = read("n.g3")
    seed("fuzz_ccitt", "netpbm_g3_stream", raw, ccitt_prefix(0, True, 1728, 8))
    # fuzz_lzw: row bytes (2 bytes, big-endian, minus 1), rows minus 1, options, strip.
    for name, bytes_per_pixel in (("strip_lzw_bw.tif", 0), ("strip_lzw_grey8.tif", 1), ("strip_lzw_rgb.tif", 3)):
        data = read(name)
        if data:
            strip, width, height = tiff_strip(data)
            row = (width + 7) // 8 if bytes_per_pixel == 0 else width * bytes_per_pixel
            seed("fuzz_lzw", name.replace(".tif", ""), strip, struct.pack(">H", row - 1) + bytes([height - 1, 0]))
    # fuzz_ccitt_encode: width minus 1 (12 bits) and the variant (bit 12: framed), rows
    # minus 1 and the coder (bits 6-7), then the rows of a PBM as a 1-bit DIB holds them:
    # 1 is white, rows padded to 4 bytes.
    for name, width, height in (("bw.pbm", 40, 24), ("tall.pbm", 16, 64), ("fax.pbm", 1728, 8)):
        pixels = read(name)
        if pixels:
            packed, stride = (width + 7) // 8, (width + 31) // 32 * 4
            raster = pixels[-packed * height:]
            rows = b"".join(bytes(255 - b for b in raster[y * packed:(y + 1) * packed]) + bytes(stride - packed)
                            for y in range(height))
            for coder in range(3):
                for framed in range(2):
                    seed("fuzz_ccitt_encode", "%s_coder%d_%s" % (name.replace(".pbm", ""), coder,
                                                                 "framed" if framed else "lsb_first"),
                         rows, struct.pack("<H", width - 1 | framed << 12) + bytes([height - 1 | coder << 6]))
    # fuzz_runs: width (2 bytes, width - 1 mod 65534) and one run record.
    for width, y in ((40, 5), (40, 0), (1728, 6)):
        seed("fuzz_runs", "record_%d_row%d" % (width, y), run_record(width, y), struct.pack("<H", width - 1))
    # fuzz_palette: operation (0 median cut, 4 popularity, 5 octree), depth, width - 1,
    # height - 1, output bits, count, list, spare; then the colours (blue, green, red) of the
    # 24-bit picture.
    pixels = read("rgb.ppm")
    if pixels:
        bgr = bytearray(pixels[-24 * 16 * 3:])
        bgr[0::3], bgr[2::3] = bgr[2::3], bgr[0::3]
        # depth 3 is 24 bits, 4 is 32, 1 is 8; output byte 0 is 8 bits, 1 is 4, 7 | n << 3 is n.
        for op, depth, bits, count, use in ((0, 3, 0, 0, 0), (4, 3, 0, 0, 0), (5, 3, 0, 40, 0),
                                            (5, 4, 1, 85, 0), (5, 1, 7 | 1 << 3, 20, 1)):
            seed("fuzz_palette", "op%d_depth%d_out%d" % (op, depth, bits), bytes(bgr),
                 bytes([op, depth, 23, 15, bits, count, use, 0]))


# Option bytes: byte 0 (and 1) pick the page; for PNG the background, for JPEG the size the decode aims at.
PREFIX = {"tiff": b"\0\0", "gif": b"\0", "dcx": b"\0", "png": b"\0", "jpeg": b"\0"}


def gather():
    """Copies the tools' outputs to the targets that read them, with option bytes."""
    for name in [v[0] for v in TIFF_VARIANTS] + ["grey8.tif"]:
        seed("fuzz_tiff", name, read(name), PREFIX["tiff"])
        seed("fuzz_tiff_append", name, read(name))
    # Files made from files of the second stage.
    run([which("tiffcp"), "-c", "lzw", work("pal4.tif"), work("pal4_lzw.tif")])
    run([which("tiffcp"), work("bw_g4.tif"), work("rgb_lzw.tif"), work("two_pages.tif")])
    seed("fuzz_tiff", "pal4_lzw.tif", read("pal4_lzw.tif"), PREFIX["tiff"])
    seed("fuzz_tiff", "two_pages_page1.tif", read("two_pages.tif"), b"\1\0")
    seed("fuzz_tiff_append", "two_pages.tif", read("two_pages.tif"))
    formats = [(fmt, name, output) for fmt, name, _, output in other_formats()]
    formats += [(fmt, name, name) for fmt, names in PILLOW_SEEDS.items() for name in names]
    for fmt, name, output in formats:
        if fmt != "fax":
            seed("fuzz_" + fmt, name, read(output), PREFIX.get(fmt, b""))
        if fmt == "tiff":
            seed("fuzz_tiff_append", name, read(output))
        if fmt in ("gif", "dcx") and "two" in name:
            seed("fuzz_" + fmt, name.replace(".", "_second."), read(output), b"\1")
    # CALS: the header records, then a Group 4 stream made by tiffcp.
    for strip_file, name in (("strip_bw_g4.tif", "g4_40x24.cal"), ("strip_g4.tif", "g4_1728x8.cal")):
        data = read(strip_file)
        if data:
            strip, width, height = tiff_strip(data)
            records = ["srcdocid: NONE", "dstdocid: NONE", "txtfilid: NONE", "figid: NONE",
                       "srcgph: NONE", "doccls: NONE", "rtype: 1", "rorient: 000,270",
                       "rpelcnt: %06d,%06d" % (width, height), "rdensty: 0200", "notes: NONE"]
            header = b"".join(r.encode().ljust(128) for r in records).ljust(2048)
            seed("fuzz_cals", name, header + strip)
            seed("fuzz_detect", name, header + strip)
    # fuzz_detect takes every format; fuzz_dither any picture behind two option bytes
    # (the depth reduction, the operation).
    detect = ["bw_g4.tif", "rgb_planar.tif", "m24.bmp", "r8.bmp", "os2.bmp", "g16i.gif", "p4.pcx",
              "two.dcx", "t16r.tga", "x11.xbm", "tiffg4.eps", "n.g3"]
    for name in detect:
        seed("fuzz_detect", name, read(name))
    seed("fuzz_jpeg", "cjpeg_rgb_toward_5x5.jpg", read("cjpeg_rgb.jpg"), b"\5")
    seed("fuzz_detect", "cjpeg_rgb.jpg", read("cjpeg_rgb.jpg"))
    dither = [("m24.bmp", 0, 0), ("m8.bmp", 1, 5), ("m4.bmp", 3, 7), ("pil_1bit.bmp", 0, 8),
              ("rgb_lzw.tif", 2, 2), ("bw_g4.tif", 0, 3), ("g16i.gif", 0, 6), ("p24.pcx", 1, 9),
              ("t32r.tga", 2, 4), ("r8.bmp", 0, 10), ("x11.xbm", 0, 1)]
    for name, reduction, op in dither:
        seed("fuzz_dither", name, read(name), bytes([reduction, op]))


def main():
    started = time.monotonic()
    shutil.rmtree(OUT, ignore_errors=True)
    os.makedirs(WORK)
    for name, data in BASES.items():
        with open(work(name), "wb") as f:
            f.write(data)
    with open(work("plain.eps"), "wb") as f:
        f.write(PLAIN_EPS)
    parallel([netpbm(output, args) for output, args in BASE_FILES] + [pillow_seeds])
    parallel([tiffcp(*v) for v in TIFF_VARIANTS] +
             [tiffcp(out, base, ["-c", c, "-r", "10000"]) for out, base, c in STRIP_SOURCES] +
             [make for _, _, make, _ in other_formats()])
    codec_seeds()
    gather()
    shutil.rmtree(WORK, ignore_errors=True)
    targets = sorted(os.listdir(OUT))
    count = sum(len(os.listdir(os.path.join(OUT, t))) for t in targets)
    print("fuzz_seeds.py: %d seeds for %d targets in %.1f s" % (count, len(targets), time.monotonic() - started))


if __name__ == "__main__":
    main()
