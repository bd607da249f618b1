#pragma once
// cairo, opened on first use. Only the commands that draw need it, and linking it would make every
// command start by mapping it and the libraries it needs (X11, fontconfig, freetype, png, ...): a
// third of the start-up time of a quick command. The drawing code calls cairo through Cairo().

#include <cairo.h>

namespace kesta {

// The cairo functions kesta draws with.
#define KESTA_CAIRO_FUNCTIONS(X)   \
    X(clip)                        \
    X(close_path)                  \
    X(create)                      \
    X(destroy)                     \
    X(fill)                        \
    X(image_surface_create)        \
    X(image_surface_get_data)      \
    X(image_surface_get_stride)    \
    X(line_to)                     \
    X(move_to)                     \
    X(paint)                       \
    X(rectangle)                   \
    X(restore)                     \
    X(rotate)                      \
    X(save)                        \
    X(select_font_face)            \
    X(set_font_size)               \
    X(set_line_width)              \
    X(set_source_rgb)              \
    X(set_source_rgba)             \
    X(set_source_surface)          \
    X(show_text)                   \
    X(status)                      \
    X(stroke)                      \
    X(surface_destroy)             \
    X(surface_flush)               \
    X(surface_mark_dirty)          \
    X(surface_status)              \
    X(surface_write_to_png_stream) \
    X(text_extents)                \
    X(translate)

// cairo_NAME as the member NAME.
struct CairoLibrary {
#define KESTA_CAIRO_MEMBER(name) decltype(&::cairo_##name) name = nullptr;
    KESTA_CAIRO_FUNCTIONS(KESTA_CAIRO_MEMBER)
#undef KESTA_CAIRO_MEMBER
};

// The shared library's file name on this system ("libcairo.so.2").
extern const char* const kCairoFile;

// Opens `file` and finds every function; throws a fault (exit 1) saying what is missing and how to
// install it. The library stays open for the rest of the process.
CairoLibrary OpenCairo(const char* file);

// cairo for this process, opened once on the first call; throws as OpenCairo does (on every call)
// while it cannot be opened.
const CairoLibrary& Cairo();

}  // namespace kesta
