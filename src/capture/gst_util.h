// Small RAII helpers around GStreamer handles, shared by the encoders here and the decoder
// in push/bridge. Only top-level pipelines are owned; elements inside a bin stay raw,
// non-owning pointers (the bin holds them).
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace velocast::capture {

// gst_init once per process, from any thread.
void ensureGstreamer();

struct GstBufferUnref {
    void operator()(GstBuffer *b) const
    {
        if (b) gst_buffer_unref(b); // shared_ptr calls its deleter for null too
    }
};
using GstBufferPtr = std::unique_ptr<GstBuffer, GstBufferUnref>;

struct GstSampleUnref {
    void operator()(GstSample *s) const { gst_sample_unref(s); }
};
using GstSamplePtr = std::unique_ptr<GstSample, GstSampleUnref>;

struct GstCapsUnref {
    void operator()(GstCaps *c) const { gst_caps_unref(c); }
};
using GstCapsPtr = std::unique_ptr<GstCaps, GstCapsUnref>;

struct GstObjectUnref {
    void operator()(gpointer o) const { gst_object_unref(o); }
};

// What a bus sync handler returns for a message it consumed: a dropped message is the
// handler's to release, and one kept alive holds its source (and so the whole pipeline).
inline GstBusSyncReply dropMessage(GstMessage *message)
{
    gst_message_unref(message);
    return GST_BUS_DROP;
}

// Stops the pipeline first (which joins its streaming threads), then drops our reference.
struct PipelineDeleter {
    void operator()(GstElement *p) const
    {
        gst_element_set_state(p, GST_STATE_NULL);
        gst_object_unref(p);
    }
};
using PipelinePtr = std::unique_ptr<GstElement, PipelineDeleter>;

// A read mapping of a buffer that is undone when it goes out of scope.
class MappedBuffer {
public:
    explicit MappedBuffer(GstBuffer *buffer);
    ~MappedBuffer();
    MappedBuffer(const MappedBuffer &) = delete;
    MappedBuffer &operator=(const MappedBuffer &) = delete;

    bool ok() const { return mapped_; }
    std::span<const uint8_t> bytes() const;

private:
    GstBuffer *buffer_;
    GstMapInfo info_{};
    bool mapped_ = false;
};

// A new buffer holding a copy of the bytes.
GstBufferPtr bufferFromBytes(std::span<const uint8_t> bytes);

// True when a factory of that name is registered here. Hardware elements register only
// when their device exists, so this is also the first "is it usable" test.
bool elementExists(const char *factoryName);

// Property setters: 0 when the element took the value, -1 when it has no such property,
// kPropertyNotTaken when it has it but holds another value afterwards (a text that does not
// parse as the property's type, a read-only property, a value the element replaced).
// setIntProperty clamps the value into the property's range instead of letting GObject
// reject it (and reports the clamp as not taken); setArgProperty parses the text the way
// gst-launch does (enums by nick).
inline constexpr int kPropertyNotTaken = -2;
int setIntProperty(GstElement *element, const char *name, int64_t value);
int setArgProperty(GstElement *element, const char *name, const char *value);
// True when the property exists and may be changed while the element is PLAYING.
bool isMutableWhilePlaying(GstElement *element, const char *name);

// "element: message (debug)" of an error message on the bus.
std::string describeError(GstMessage *message);

} // namespace velocast::capture
