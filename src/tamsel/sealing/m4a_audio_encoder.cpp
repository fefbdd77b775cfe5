#include "tamsel/sealing/m4a_audio_encoder.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "tamsel/base/log.hpp"
#include "tamsel/sealing/sealing_types.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

namespace tamsel::sealing {

namespace {

constexpr std::int64_t kFrameSize = 1024;  // AAC-LC codes 1024 samples per packet
constexpr AVRational kTimeBase{1, M4AAudioEncoder::sampleRate};

[[noreturn]] void fail(const std::string& what, int code = 0) {
  std::string message = what;
  if (code < 0) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    message += ": ";
    message += text;
  }
  throw M4AAudioEncoderException(M4AAudioEncoderError{message});
}

struct CodecContextFree {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFree {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

// FFmpeg prints to stderr by default, which would tear through a progress bar: its errors go
// to our log, its chatter (and the warnings of encoders stopped early) nowhere.
void routeFFmpegLog() {
  static std::once_flag once;
  std::call_once(once, [] {
    av_log_set_callback([](void* object, int level, const char* format, va_list args) {
      if (level > AV_LOG_ERROR) return;
      char line[1024];
      int prefix = 1;
      va_list copy;
      va_copy(copy, args);
      av_log_format_line(object, level, format, copy, line, sizeof line, &prefix);
      va_end(copy);
      std::string text(line);
      while (!text.empty() && text.back() == '\n') text.pop_back();
      base::log::warn("meeting", "ffmpeg: {}", text);
    });
  });
}

CodecContextPtr openEncoder(const M4AEncoderOptions& options) {
  routeFFmpegLog();
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
  if (!codec) fail("this FFmpeg has no AAC encoder");
  CodecContextPtr ctx(avcodec_alloc_context3(codec));
  if (!ctx) fail("cannot allocate the AAC encoder");
  ctx->sample_fmt = AV_SAMPLE_FMT_FLTP;
  ctx->sample_rate = M4AAudioEncoder::sampleRate;
  av_channel_layout_default(&ctx->ch_layout, M4AAudioEncoder::channels);
  ctx->bit_rate = options.bitrate;
  ctx->profile = FF_PROFILE_AAC_LOW;
  ctx->time_base = kTimeBase;
  // The MP4 family keeps the decoder configuration in the sample description, not in-band.
  ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  ctx->thread_count = 1;
  AVDictionary* opts = nullptr;
  av_dict_set(&opts, "aac_coder", options.coder.c_str(), 0);
  // The channels are two different sources (the user, the others) that must stay apart: no
  // intensity stereo (it pans shared highs between the channels) and no mid/side search, which
  // finds little between unrelated signals and costs about a tenth of the coding time.
  av_dict_set(&opts, "aac_is", "0", 0);
  av_dict_set(&opts, "aac_ms", "0", 0);
  const int rc = avcodec_open2(ctx.get(), codec, &opts);
  av_dict_free(&opts);
  if (rc < 0) fail("cannot open the AAC encoder (coder " + options.coder + ")", rc);
  return ctx;
}

// One segment's kept packets, in order.
struct Segment {
  std::int64_t begin = 0, end = 0;  // the frames whose packets this segment keeps
  std::vector<PacketPtr> packets;
};

class SegmentCoder {
 public:
  SegmentCoder(const M4AEncoderOptions& options, StereoFrameSource& source,
               const std::atomic<bool>* cancel)
      : options_(options), source_(source), cancel_(cancel) {}

  // Codes [begin − overlap, end + overlap) and keeps the packets that start inside
  // [begin, end); the first segment also keeps the priming packet and the last one the flush.
  void code(Segment& segment, const std::function<void(std::int64_t)>& advanced) {
    const std::int64_t total = source_.totalFrames();
    const bool first = segment.begin == 0;
    const bool last = segment.end >= total;
    const std::int64_t from = std::max<std::int64_t>(0, segment.begin - options_.overlapFrames);
    const std::int64_t to = std::min(total, segment.end + options_.overlapFrames);
    auto ctx = openEncoder(options_);
    FramePtr frame(av_frame_alloc());
    PacketPtr packet(av_packet_alloc());
    if (!frame || !packet) fail("out of memory");
    std::vector<float> interleaved(kFrameSize * 2);
    const auto keep = [&](std::int64_t pts) {
      if (pts < segment.begin && !first) return false;
      if (pts >= segment.end && !last) return false;
      return true;
    };
    const auto drain = [&] {
      for (;;) {
        const int rc = avcodec_receive_packet(ctx.get(), packet.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
        if (rc < 0) fail("the AAC encoder failed", rc);
        if (keep(packet->pts)) {
          PacketPtr kept(av_packet_alloc());
          if (!kept) fail("out of memory");
          av_packet_move_ref(kept.get(), packet.get());
          segment.packets.push_back(std::move(kept));
        } else {
          av_packet_unref(packet.get());
        }
      }
    };
    for (std::int64_t at = from; at < to; at += kFrameSize) {
      if (cancel_ && cancel_->load(std::memory_order_relaxed)) fail("cancelled");
      const std::int64_t n = std::min(kFrameSize, to - at);
      source_.read(at, n, interleaved.data());
      av_frame_unref(frame.get());
      frame->nb_samples = static_cast<int>(n);
      frame->format = AV_SAMPLE_FMT_FLTP;
      frame->sample_rate = M4AAudioEncoder::sampleRate;
      av_channel_layout_copy(&frame->ch_layout, &ctx->ch_layout);
      if (const int rc = av_frame_get_buffer(frame.get(), 0); rc < 0)
        fail("cannot allocate an audio frame", rc);
      auto* left = reinterpret_cast<float*>(frame->data[0]);
      auto* right = reinterpret_cast<float*>(frame->data[1]);
      for (std::int64_t i = 0; i < n; ++i) {
        left[i] = interleaved[2 * i];
        right[i] = interleaved[2 * i + 1];
      }
      frame->pts = at;  // timestamps in samples on the whole timeline, so segments line up
      if (const int rc = avcodec_send_frame(ctx.get(), frame.get()); rc < 0)
        fail("the AAC encoder refused a frame", rc);
      drain();
      // Progress counts the segment's own frames only, so the total ends at the timeline's.
      const std::int64_t ownFrom = std::max(at, segment.begin);
      const std::int64_t ownTo = std::min(at + n, segment.end);
      if (ownTo > ownFrom && advanced) advanced(ownTo - ownFrom);
    }
    if (const int rc = avcodec_send_frame(ctx.get(), nullptr); rc < 0)
      fail("cannot flush the AAC encoder", rc);
    drain();
  }

 private:
  const M4AEncoderOptions& options_;
  StereoFrameSource& source_;
  const std::atomic<bool>* cancel_;
};

// The muxer writes through our own descriptor so the file is created 0600 and can be synced.
struct FileSink {
  int fd = -1;
  static int write(void* opaque, std::uint8_t* data, int size) {  // FFmpeg 5.1: not const
    auto* self = static_cast<FileSink*>(opaque);
    int done = 0;
    while (done < size) {
      const ssize_t n = ::write(self->fd, data + done, static_cast<std::size_t>(size - done));
      if (n < 0) {
        if (errno == EINTR) continue;
        return AVERROR(errno);
      }
      done += static_cast<int>(n);
    }
    return size;
  }
  static std::int64_t seek(void* opaque, std::int64_t offset, int whence) {
    auto* self = static_cast<FileSink*>(opaque);
    if (whence & AVSEEK_SIZE) {
      struct stat st {};
      return ::fstat(self->fd, &st) == 0 ? st.st_size : AVERROR(errno);
    }
    const off_t at = ::lseek(self->fd, offset, whence & ~AVSEEK_FORCE);
    return at < 0 ? AVERROR(errno) : at;
  }
};

void mux(std::vector<Segment>& segments, const std::filesystem::path& output,
         const M4AEncoderOptions& options) {
  // The stream's parameters (decoder configuration, priming) from an encoder set up alike.
  auto model = openEncoder(options);
  AVFormatContext* raw = nullptr;
  if (const int rc = avformat_alloc_output_context2(&raw, nullptr, "ipod", nullptr); rc < 0)
    fail("cannot create the M4A container", rc);
  std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> format(raw, [](AVFormatContext* f) {
    if (f->pb) {
      av_freep(&f->pb->buffer);
      avio_context_free(&f->pb);
    }
    avformat_free_context(f);
  });
  format->url = av_strdup(output.c_str());
  AVStream* stream = avformat_new_stream(format.get(), nullptr);
  if (!stream) fail("cannot add the audio stream");
  if (const int rc = avcodec_parameters_from_context(stream->codecpar, model.get()); rc < 0)
    fail("cannot describe the audio stream", rc);
  stream->time_base = kTimeBase;

  FileSink sink;
  sink.fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (sink.fd < 0)
    throw std::system_error(errno, std::generic_category(), "cannot create " + output.string());
  struct CloseFd {
    int fd;
    ~CloseFd() { ::close(fd); }
  } closer{sink.fd};
  constexpr int kBufferSize = 1 << 16;
  auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferSize));
  if (!buffer) fail("out of memory");
  format->pb =
      avio_alloc_context(buffer, kBufferSize, 1, &sink, nullptr, &FileSink::write, &FileSink::seek);
  if (!format->pb) {
    av_free(buffer);
    fail("out of memory");
  }
  // The edit list's length counts in the movie's timescale: at the default 1/1000 s a track
  // could only end on a whole millisecond; at the sample rate it ends on its last sample.
  AVDictionary* muxerOptions = nullptr;
  av_dict_set_int(&muxerOptions, "movie_timescale", M4AAudioEncoder::sampleRate, 0);
  const int headerRC = avformat_write_header(format.get(), &muxerOptions);
  av_dict_free(&muxerOptions);
  if (headerRC < 0) fail("cannot write the M4A header", headerRC);
  for (auto& segment : segments) {
    for (auto& packet : segment.packets) {
      packet->stream_index = stream->index;
      av_packet_rescale_ts(packet.get(), kTimeBase, stream->time_base);
      if (const int rc = av_write_frame(format.get(), packet.get()); rc < 0)
        fail("cannot write an audio packet", rc);
    }
    segment.packets.clear();
  }
  if (const int rc = av_write_trailer(format.get()); rc < 0) fail("cannot finish the M4A file", rc);
  avio_flush(format->pb);
  if (format->pb->error < 0) fail("cannot write " + output.string(), format->pb->error);
  if (::fsync(sink.fd) != 0)
    throw std::system_error(errno, std::generic_category(), "cannot sync " + output.string());
}

}  // namespace

M4AAudioEncoder::M4AAudioEncoder(M4AEncoderOptions options) : options_(std::move(options)) {
  options_.segmentFrames =
      std::max<std::int64_t>(kFrameSize, options_.segmentFrames / kFrameSize * kFrameSize);
  options_.overlapFrames = std::max<std::int64_t>(0, options_.overlapFrames);
  options_.workers = std::max(1, options_.workers);
}

void M4AAudioEncoder::encode(StereoFrameSource& source, const std::filesystem::path& output,
                             const Progress& progress, const std::atomic<bool>* cancel) const {
  const std::int64_t total = source.totalFrames();
  if (total <= 0) fail("the timeline is empty");
  std::vector<Segment> segments;
  for (std::int64_t at = 0; at < total; at += options_.segmentFrames)
    segments.push_back({at, std::min(total, at + options_.segmentFrames), {}});

  std::atomic<std::size_t> next{0};
  std::atomic<std::int64_t> encoded{0};
  std::atomic<bool> stop{false};
  std::mutex errorLock;
  std::exception_ptr error;
  // Segments are taken in timeline order, so a worker that follows a renderer still running
  // waits least.
  const auto work = [&] {
    try {
      SegmentCoder coder(options_, source, &stop);
      for (;;) {
        if (cancel && cancel->load()) stop = true;
        if (stop.load()) return;
        const std::size_t index = next.fetch_add(1);
        if (index >= segments.size()) return;
        coder.code(segments[index], [&](std::int64_t frames) {
          const auto now = encoded.fetch_add(frames) + frames;
          if (cancel && cancel->load()) stop = true;
          if (progress) progress(now);
        });
      }
    } catch (...) {
      std::lock_guard lock(errorLock);
      if (!error) error = std::current_exception();
      stop = true;
    }
  };
  const int workers = static_cast<int>(
      std::min<std::size_t>(static_cast<std::size_t>(options_.workers), segments.size()));
  std::vector<std::thread> threads;
  for (int i = 1; i < workers; ++i) threads.emplace_back(work);
  work();
  for (auto& t : threads) t.join();
  if (cancel && cancel->load() && !error) fail("cancelled");
  if (error) {
    // A worker stopped by another's failure reports "cancelled"; the first real cause wins.
    std::rethrow_exception(error);
  }
  mux(segments, output, options_);
}

}  // namespace tamsel::sealing
