// Real media for the receiver's tests, made with GStreamer in the form the sender pushes
// it: H.264 access units in Annex-B form with SPS and PPS in front of key frames, AAC LC
// frames behind the sender's fixed 7-byte ADTS header, and "4CVA" records.
#pragma once

#include <QByteArray>
#include <QList>

struct EncodedVideo {
    QList<QByteArray> units;
    QList<bool> keys;
};

// Constrained Baseline from x264enc, one slice per frame, a key frame every 10 frames.
// Empty when the encoder is not installed.
EncodedVideo encodeVideo(int frames, int width, int height);
// 1024-sample frames at 44100 Hz, stereo, from voaacenc.
QList<QByteArray> encodeAudio(int frames);
QByteArray videoRecord(const QByteArray &accessUnit, bool keyFrame);
