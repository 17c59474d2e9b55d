#include "capture/gst_util.h"

#include <optional>

#include <algorithm>
#include <type_traits>
#include <mutex>

namespace velocast::capture {

void ensureGstreamer()
{
    static std::once_flag once;
    std::call_once(once, [] { gst_init(nullptr, nullptr); });
}

MappedBuffer::MappedBuffer(GstBuffer *buffer) : buffer_(buffer)
{
    if (buffer_) mapped_ = gst_buffer_map(buffer_, &info_, GST_MAP_READ);
}

MappedBuffer::~MappedBuffer()
{
    if (mapped_) gst_buffer_unmap(buffer_, &info_);
}

std::span<const uint8_t> MappedBuffer::bytes() const
{
    if (!mapped_) return {};
    return {info_.data, info_.size};
}

GstBufferPtr bufferFromBytes(std::span<const uint8_t> bytes)
{
    ensureGstreamer();
    if (bytes.empty()) return GstBufferPtr(gst_buffer_new());
    return GstBufferPtr(gst_buffer_new_memdup(bytes.data(), bytes.size()));
}

bool elementExists(const char *factoryName)
{
    ensureGstreamer();
    GstElementFactory *factory = gst_element_factory_find(factoryName);
    if (!factory) return false;
    gst_object_unref(factory);
    return true;
}

namespace {

template <typename T>
T clampTo(int64_t v, T lo, T hi)
{
    if constexpr (std::is_signed_v<T>) {
        return static_cast<T>(std::clamp<int64_t>(v, lo, hi));
    } else {
        if (v < 0) return lo;
        return static_cast<T>(std::clamp<uint64_t>(static_cast<uint64_t>(v), lo, hi));
    }
}

} // namespace

namespace {

// Sets the value (and unsets it), then reads the property back: an element may refuse a
// value or replace it with its own (a read-only or construct-only property, a clamp).
int setAndCheck(GstElement *element, GParamSpec *spec, GValue *v, std::optional<int64_t> asked)
{
    if (!(spec->flags & G_PARAM_WRITABLE) || (spec->flags & G_PARAM_CONSTRUCT_ONLY)) {
        g_value_unset(v);
        return kPropertyNotTaken;
    }
    g_object_set_property(G_OBJECT(element), spec->name, v);
    GValue back = G_VALUE_INIT;
    g_value_init(&back, spec->value_type);
    int result = 0;
    if (spec->flags & G_PARAM_READABLE) {
        g_object_get_property(G_OBJECT(element), spec->name, &back);
        if (gst_value_compare(v, &back) != GST_VALUE_EQUAL) result = kPropertyNotTaken;
    }
    // A value clamped into the range is not the value asked for either.
    if (asked) {
        GValue wide = G_VALUE_INIT;
        g_value_init(&wide, G_TYPE_INT64);
        if (g_value_transform(v, &wide) && g_value_get_int64(&wide) != *asked) result = kPropertyNotTaken;
        g_value_unset(&wide);
    }
    g_value_unset(&back);
    g_value_unset(v);
    return result;
}

} // namespace

int setIntProperty(GstElement *element, const char *name, int64_t value)
{
    GParamSpec *spec = g_object_class_find_property(G_OBJECT_GET_CLASS(element), name);
    if (!spec) return -1;
    GValue v = G_VALUE_INIT;
    g_value_init(&v, spec->value_type);
    switch (G_TYPE_FUNDAMENTAL(spec->value_type)) {
    case G_TYPE_INT: {
        auto *s = G_PARAM_SPEC_INT(spec);
        g_value_set_int(&v, clampTo<gint>(value, s->minimum, s->maximum));
        break;
    }
    case G_TYPE_UINT: {
        auto *s = G_PARAM_SPEC_UINT(spec);
        g_value_set_uint(&v, clampTo<guint>(value, s->minimum, s->maximum));
        break;
    }
    case G_TYPE_INT64: {
        auto *s = G_PARAM_SPEC_INT64(spec);
        g_value_set_int64(&v, clampTo<gint64>(value, s->minimum, s->maximum));
        break;
    }
    case G_TYPE_UINT64: {
        auto *s = G_PARAM_SPEC_UINT64(spec);
        g_value_set_uint64(&v, clampTo<guint64>(value, s->minimum, s->maximum));
        break;
    }
    default:
        g_value_unset(&v);
        return -1;
    }
    return setAndCheck(element, spec, &v, value);
}

int setArgProperty(GstElement *element, const char *name, const char *value)
{
    GParamSpec *spec = g_object_class_find_property(G_OBJECT_GET_CLASS(element), name);
    if (!spec) return -1;
    GValue v = G_VALUE_INIT;
    g_value_init(&v, spec->value_type);
    if (!gst_value_deserialize(&v, value)) {
        g_value_unset(&v);
        return kPropertyNotTaken;
    }
    return setAndCheck(element, spec, &v, std::nullopt);
}

bool isMutableWhilePlaying(GstElement *element, const char *name)
{
    GParamSpec *spec = g_object_class_find_property(G_OBJECT_GET_CLASS(element), name);
    return spec && (spec->flags & GST_PARAM_MUTABLE_PLAYING);
}

std::string describeError(GstMessage *message)
{
    GError *error = nullptr;
    gchar *debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    std::string text = GST_OBJECT_NAME(GST_MESSAGE_SRC(message));
    text += ": ";
    text += error ? error->message : "unknown error";
    if (debug) {
        text += " (";
        text += debug;
        text += ')';
    }
    if (error) g_error_free(error);
    g_free(debug);
    return text;
}

} // namespace velocast::capture
