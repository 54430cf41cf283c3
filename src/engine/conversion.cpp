// The conversion object. What the file chain learns only at its end (the rate and channel
// count of the last frame delivered, hence the mono frame count N and the 8000 Hz count M)
// comes from the header scan, so every output byte can be made as the input is decoded:
// granules are rounded to 16 bits and laid out as the decoded file holds them (each granule
// with its own frame's channel count), read back as frames of the last frame's channel count
// and mixed, resampled by the same engine with the same counts, and coded 160 samples at a time.
//
// Where the machine has more than one core, the decode (frames, granules, the rounding to 16
// bits) runs on a thread of its own, a few blocks of granules ahead of the mix, the resampler
// and the coder, which stay on the caller's thread with the write and progress callbacks. The
// caller takes the granules in the same order and at the same points either way, so the bytes,
// the progress values and the statuses do not depend on the thread.
#include "engine/conversion.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <vector>

// libstdc++ built for the Windows thread model without gthreads (mingw-w64's win32 flavour
// before GCC 13) has no std::thread: there the decode stays on the caller's thread.
#if !defined(__GLIBCXX__) || defined(_GLIBCXX_HAS_GTHREADS)
#define KAVO_DECODE_THREAD 1
#include <condition_variable>
#include <mutex>
#include <thread>
#else
#define KAVO_DECODE_THREAD 0
#endif

#include "adpcm/adpcm_core.h"
#include "engine/speech_level.h"
#include "engine/stream_scan.h"
#include "frame/codec.h"
#include "frame/frame_sync.h"
#include "layer3/layer3.h"
#include "layer3/layer3_state.h"
#include "pcmout/pcm_output.h"
#include "resample/filter_set.h"
#include "resample/mix_core.h"
#include "resample/resample_engine.h"

namespace kavolib {

namespace {

constexpr int kGranuleValues = 2 * kGranuleSamples;
// ADPCM frames handed to the write function at once (8000 bytes, one second of output).
constexpr int kOutputFrames = 100;
// The decode runs at most kBlocks blocks of kBlockGranules granules ahead of the mix (some
// 150 kB, whatever the input's length).
constexpr int kBlockGranules = 16;
constexpr int kBlocks = 4;

// Where the 16-bit values come from, a granule's worth at a time: the decoder, or the samples
// of a WAV file.
class ValueSource {
public:
    virtual ~ValueSource() = default;
    // The next values (interleaved when stereo) into out, at most kGranuleValues; 0 at the end.
    virtual int next(int16_t* out) = 0;
};

// The bytes [position, end) of the input, in order, as the frame layer reads them.
struct RangeSource {
    const ByteReader* in;
    uint64_t begin;
    uint64_t end;
    uint64_t position;

    static size_t read(void* context, uint8_t* dst, size_t n) {
        auto* range = static_cast<RangeSource*>(context);
        const uint64_t left = range->end - range->position;
        const size_t want = left < n ? static_cast<size_t>(left) : n;
        const size_t got = want == 0 ? 0 : range->in->read_at(range->in->context, range->position, dst, want);
        range->position += got;
        return got;
    }

    ByteSource source() { return ByteSource{read, this}; }
};

// The decode: the frame layer and the Layer III decoder with their own states.
class Decoder : public ValueSource {
public:
    explicit Decoder(ByteSource& source) : source_(source) {}

    // skip_first_frame: the first frame delivered holds the encoder's header, not audio.
    void reset(bool skip_first_frame) {
        skip_frame_ = skip_first_frame;
        frames_.sync_state = sync_pending;
        frames_.current = BitPosition{frames_.stream.bytes, 0, 0};
        layer3_reset(layer3_);
    }

    // One granule of the current frame (the next frame first when this one is done), decoded
    // as the decode loop does it (granule 1 starts where granule 0 ended when that had no
    // error) and rounded to 16 bits as the decoded file holds it, both channels interleaved.
    // Returns the number of values, 0 at the end of the decode.
    int next(int16_t* out) override {
        if (granule_ >= granules_in_frame_) {
            FrameRead read = read_frame_from(frames_, reader_, header_, source_);
            if (skip_frame_ && read.result == 0) {
                skip_frame_ = false;
                read = read_frame_from(frames_, reader_, header_, source_);
            }
            // The scan has refused inputs with a Layer I or II frame; stop at one all the same.
            if (read.result != 0 || header_.layer != 3) return 0;
            granules_in_frame_ = header_.granules;
            granule_ = 0;
            carried_error_ = 0;
        }
        GranuleJob& job = job_;
        job.buffer = frames_.stream.bytes;
        job.bit_offset = frames_.current.bit_offset;
        job.byte_index = frames_.current.byte_index;
        job.pcm_buffers = pcm_pointers_;
        job.channel_flags = channel_flags_;
        job.buffer_lengths = buffer_lengths_;
        job.granule = granule_;
        job.conceal_limit = 0;
        const CodecResult result = decode_granule(layer3_, reader_, header_, carried_error_, job);
        carried_error_ = result.error;
        if (result.error == 0) {
            const auto* next = static_cast<const BitPosition*>(result.result);
            frames_.current.bit_offset = next->bit_offset;
            frames_.current.byte_index = next->byte_index;
        }
        ++granule_;
        if (frames_.pcm_channels == 2) {
            pcm_samples16_stereo(pcm_[0], pcm_[1], out, kGranuleSamples);
            return 2 * kGranuleSamples;
        }
        pcm_samples16(pcm_[0], out, kGranuleSamples);
        return kGranuleSamples;
    }

    // The granule's samples as decoded, before rounding: channel ch at samples(ch).
    const double* samples(int ch) const { return pcm_[ch]; }

private:
    ByteSource& source_;
    FrameState frames_{};
    BitReader reader_{};
    FrameHeader header_{};
    Layer3State layer3_{};
    alignas(64) double pcm_[2][kGranuleSamples] = {};
    double* pcm_pointers_[2] = {pcm_[0], pcm_[1]};
    int32_t channel_flags_[2] = {1, 1};
    int32_t buffer_lengths_[2] = {kGranuleSamples, kGranuleSamples};
    GranuleJob job_{};
    int32_t granule_ = 0;
    int32_t granules_in_frame_ = 0;
    int32_t carried_error_ = 0;
    bool skip_frame_ = false;
};

// The samples of a WAV file, turned into 16-bit values by their encoding's rule, a granule's
// length of frames at a time.
class WavSamples : public ValueSource {
public:
    WavSamples(const ByteReader& in, const InputLayout& layout)
        : in_(in), info_(layout.wav), position_(layout.begin) {}

    int next(int16_t* out) override {
        const uint64_t left = info_.frames - frames_done_;
        const int frames = left < kGranuleSamples ? static_cast<int>(left) : kGranuleSamples;
        const size_t values = static_cast<size_t>(frames) * static_cast<size_t>(info_.channels);
        const size_t bytes = values * static_cast<size_t>(info_.sample_bytes);
        // A short read ends the samples; the caller learns of it from the input's failed().
        if (frames == 0 || in_.read_at(in_.context, position_, raw_, bytes) != bytes) return 0;
        wav_to_16(info_.encoding, raw_, values, out);
        position_ += bytes;
        frames_done_ += static_cast<uint64_t>(frames);
        return static_cast<int>(values);
    }

private:
    const ByteReader& in_;
    WavInfo info_;
    uint64_t position_;
    uint64_t frames_done_ = 0;
    uint8_t raw_[kGranuleValues * 4] = {};
};

struct GranuleBlock {
    int16_t values[kBlockGranules][kGranuleValues];
    int counts[kBlockGranules];
    int granules;  // decoded into this block
    bool last;     // the decode ended after them
};

// The decoded granules in order, from the decoder run on demand on the caller's thread or from
// a decode thread through a ring of kBlocks blocks. The caller sees the same granules either way.
class GranuleFeed {
public:
    GranuleFeed() = default;
    GranuleFeed(const GranuleFeed&) = delete;
    GranuleFeed& operator=(const GranuleFeed&) = delete;
    ~GranuleFeed() { stop(); }

    // Starts the decode thread when asked to and when one can be had. The decode on demand
    // needs one block, the thread a ring of kBlocks; their values are written before being read.
    void start(ValueSource& source, bool decode_thread) {
        decoder_ = &source;
#if KAVO_DECODE_THREAD
        if (decode_thread) {
            blocks_.reset(new GranuleBlock[kBlocks]);
            try {
                thread_ = std::thread(&GranuleFeed::produce, this);
                threaded_ = true;
                return;
            } catch (const std::system_error&) {
                threaded_ = false;  // no thread to be had: decode on demand
            }
        }
#else
        (void)decode_thread;
#endif
        if (blocks_ == nullptr) blocks_.reset(new GranuleBlock[1]);
    }

    // The next granule's values (valid until the next call) and their count; 0 at the end.
    int next(const int16_t*& values) {
        while (block_ == nullptr || position_ == block_->granules) {
            if (block_ != nullptr && block_->last) return 0;
            block_ = take();
            position_ = 0;
        }
        values = block_->values[position_];
        return block_->counts[position_++];
    }

    // Takes what is left of the decode, so that the input is read to its end either way.
    void drain() {
        const int16_t* values = nullptr;
        while (next(values) != 0) {
        }
    }

    // Ends the decode thread (at its next granule) and waits for it.
    void stop() {
#if KAVO_DECODE_THREAD
        if (!thread_.joinable()) return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_.store(true, std::memory_order_relaxed);
        }
        free_.notify_one();
        thread_.join();
#endif
    }

private:
    // Decodes up to a block of granules.
    void fill(GranuleBlock& block) {
        block.granules = 0;
        block.last = false;
        while (block.granules < kBlockGranules) {
#if KAVO_DECODE_THREAD
            if (stop_.load(std::memory_order_relaxed)) break;
#endif
            const int count = decoder_->next(block.values[block.granules]);
            if (count == 0) {
                block.last = true;
                break;
            }
            block.counts[block.granules++] = count;
        }
    }

    // The next block: decoded now, or the decode thread's next one once it is ready (the one
    // read before goes back to the thread).
    const GranuleBlock* take() {
#if KAVO_DECODE_THREAD
        if (threaded_) {
            std::unique_lock<std::mutex> lock(mutex_);
            if (block_ != nullptr) {
                --filled_;
                ++taken_;
                free_.notify_one();
            }
            ready_.wait(lock, [this] { return filled_ > 0; });
            return &blocks_[taken_ % kBlocks];
        }
#endif
        fill(blocks_[0]);
        return &blocks_[0];
    }

#if KAVO_DECODE_THREAD
    // The decode thread: fills the free blocks in turn until the decode ends or stop() is called.
    void produce() {
        for (unsigned made = 0;; ++made) {
            {
                std::unique_lock<std::mutex> lock(mutex_);
                free_.wait(lock, [this] {
                    return filled_ < kBlocks || stop_.load(std::memory_order_relaxed);
                });
                if (stop_.load(std::memory_order_relaxed)) return;
            }
            GranuleBlock& block = blocks_[made % kBlocks];
            fill(block);
            const bool last = block.last;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                ++filled_;
            }
            ready_.notify_one();
            if (last) return;
        }
    }
#endif

    ValueSource* decoder_ = nullptr;
    std::unique_ptr<GranuleBlock[]> blocks_;
    const GranuleBlock* block_ = nullptr;  // the block being read
    int position_ = 0;                      // its next granule
#if KAVO_DECODE_THREAD
    bool threaded_ = false;
    std::mutex mutex_;
    std::condition_variable ready_;  // a block was filled
    std::condition_variable free_;   // a block was given back, or stop() was called
    int filled_ = 0;                 // blocks filled and not yet given back
    unsigned taken_ = 0;             // blocks given back
    std::atomic<bool> stop_{false};
    std::thread thread_;
#endif
};

// The decode thread is used where the machine has more than one core, unless
// KAVO_ENGINE_THREADS=1 asks for everything on the caller's thread.
bool want_decode_thread() {
#if KAVO_DECODE_THREAD
    const char* force = std::getenv("KAVO_ENGINE_THREADS");
    if (force != nullptr && std::strcmp(force, "1") == 0) return false;
    static const bool several_cores = std::thread::hardware_concurrency() > 1;
    return several_cores;
#else
    return false;
#endif
}

class Conversion {
public:
    Conversion(EngineInput& input, const kavo_settings& settings, kavo_write_fn write,
               kavo_progress_fn progress, void* user, kavo_report& report)
        : input_(input), gain_(settings.gain), target_(settings.target),
          target_db_(settings.target_db), gapless_(settings.gapless != 0), write_(write),
          progress_(progress), user_(user), report_(report) {}

    int run(char* message, size_t message_size, InputLayout* described);

private:
    int run_mpeg();
    int run_wav();
    int convert(double factor, int64_t n_frames);
    int fail(int status, const char* format, ...) __attribute__((format(printf, 3, 4)));
    bool next_granule();
    bool apply_gapless(const StreamScan& scan, int64_t& n_frames);
    bool skip_front();
    size_t read_mono(int16_t* dst, size_t n);
    int take_output(const int16_t* samples, size_t n);
    bool flush_output();
    void report(int percent);
    void note_levels(const int16_t* samples);
    bool code_frame(int16_t* samples);
    bool code_held();
    void finish_report();

    static size_t read_mono_io(void* context, int16_t* dst, size_t n) {
        return static_cast<Conversion*>(context)->read_mono(dst, n);
    }
    static int write_io(void* context, const int16_t* samples, size_t n) {
        return static_cast<Conversion*>(context)->take_output(samples, n);
    }

    EngineInput& input_;
    float gain_;
    int32_t target_;  // KAVO_TARGET_*: the gain is chosen once every sample is known
    float target_db_;
    bool gapless_;
    kavo_write_fn write_;
    kavo_progress_fn progress_;
    void* user_;
    kavo_report& report_;
    char* message_ = nullptr;
    size_t message_size_ = 0;

    InputLayout layout_;
    RangeSource range_{&input_.reader, 0, 0, 0};
    ByteSource stream_ = range_.source();
    Decoder decoder_{stream_};
    std::unique_ptr<WavSamples> wav_;
    int64_t granules_done_ = 0;
    int64_t granules_total_ = 0;
    int last_percent_ = -1;

    // The decoded values as the decoded file would hold them, and the mix reading them back:
    // the current granule's values, or the carry when a frame was split between granules.
    const int16_t* values_ = nullptr;
    int value_count_ = 0;
    int value_position_ = 0;
    int16_t carry_[kGranuleValues + 1] = {};
    int channels_ = 1;  // of the last frame delivered: how the decoded values are read back
    int64_t mono_done_ = 0;
    int64_t mono_total_ = 0;  // N
    int64_t skip_frames_ = 0;  // decoded frames the gapless cut drops before the first of N

    // The coder.
    AdpcmState adpcm_{};
    int16_t frame_[kAdpcmFrameSamples] = {};
    int frame_fill_ = 0;
    uint8_t output_[kOutputFrames * kAdpcmFrameBytes] = {};
    size_t output_fill_ = 0;
    bool stopped_ = false;

    // What the coder saw: the extremes before the gain, the samples the gain wrapped, the
    // frames coded.
    int16_t highest_ = INT16_MIN;
    int16_t lowest_ = INT16_MAX;
    int64_t wrapped_ = 0;
    int64_t frames_coded_ = 0;
    SpeechLevel speech_;
    GainChoice choice_;  // what a target chose

    // With a target: every whole frame of 8000 Hz samples, held until the gain is chosen.
    std::vector<int16_t> held_;

    // Declared last, so that it is destroyed first: the decode thread ends before anything
    // it uses goes.
    GranuleFeed feed_;
};

int Conversion::fail(int status, const char* format, ...) {
    if (message_ != nullptr && message_size_ > 0) {
        va_list args;
        va_start(args, format);
        std::vsnprintf(message_, message_size_, format, args);
        va_end(args);
    }
    return status;
}

void Conversion::report(int percent) {
    if (progress_ == nullptr || percent <= last_percent_) return;
    last_percent_ = percent;
    progress_(user_, percent);
}

// The next granule's values behind what the last read-back left over (a frame split between
// granules); false at the end of the decode.
bool Conversion::next_granule() {
    // The leftover first: the block it lies in may go back to the decode thread below.
    const int left = value_count_ - value_position_;
    if (left > 0) std::memmove(carry_, values_ + value_position_, sizeof(int16_t) * static_cast<size_t>(left));
    const int16_t* granule = nullptr;
    const int count = feed_.next(granule);
    if (count == 0) {
        values_ = carry_;
        value_position_ = 0;
        value_count_ = left;
        return false;
    }
    if (left > 0) {
        std::memcpy(carry_ + left, granule, sizeof(int16_t) * static_cast<size_t>(count));
        values_ = carry_;
    } else {
        values_ = granule;
    }
    value_position_ = 0;
    value_count_ = left + count;

    ++granules_done_;
    report(static_cast<int>(std::min<int64_t>(99, granules_done_ * 100 / granules_total_)));
    return true;
}

// Up to n mono samples: N of them in all, past the end of the decoded values as silence.
size_t Conversion::read_mono(int16_t* dst, size_t n) {
    size_t produced = 0;
    if (skip_frames_ > 0 && !skip_front()) mono_done_ = mono_total_;
    while (produced < n && mono_done_ < mono_total_) {
        if (value_count_ - value_position_ < channels_) {
            if (!next_granule()) {
                // Frames the header promised but the decode did not deliver: silence.
                const auto rest = static_cast<size_t>(
                    std::min<int64_t>(mono_total_ - mono_done_, static_cast<int64_t>(n - produced)));
                std::fill(dst + produced, dst + produced + rest, int16_t{0});
                produced += rest;
                mono_done_ += static_cast<int64_t>(rest);
                break;
            }
            continue;
        }
        const int available = (value_count_ - value_position_) / channels_;
        const auto count = static_cast<int>(std::min<int64_t>(
            {static_cast<int64_t>(available), mono_total_ - mono_done_,
             static_cast<int64_t>(n - produced)}));
        const int16_t* in = values_ + value_position_;
        int16_t* out = dst + produced;
        if (channels_ == 2) {
            for (int f = 0; f < count; ++f) out[f] = mix_pair(in[2 * f], in[2 * f + 1]);
        } else {
            std::memcpy(out, in, sizeof(int16_t) * static_cast<size_t>(count));
        }
        value_position_ += count * channels_;
        produced += static_cast<size_t>(count);
        mono_done_ += count;
    }
    return produced;
}

// Drops the decoded frames in front of the gapless cut; false when the decode ends first.
bool Conversion::skip_front() {
    while (skip_frames_ > 0) {
        if (value_count_ - value_position_ < channels_) {
            if (!next_granule()) return false;
            continue;
        }
        const int64_t count =
            std::min<int64_t>((value_count_ - value_position_) / channels_, skip_frames_);
        value_position_ += static_cast<int>(count) * channels_;
        skip_frames_ -= count;
    }
    return true;
}

// The gapless cut on the decoded frames: n_frames becomes the count kept and skip_frames_ the
// count in front (the header frame is not decoded). False when a header was not found.
bool Conversion::apply_gapless(const StreamScan& scan, int64_t& n_frames) {
    const GaplessPlan plan = plan_gapless(scan);
    if (!gapless_ || !plan.applies) return false;
    skip_frames_ = plan.skip_frames;
    n_frames = plan.keep_frames;
    granules_total_ -= scan.granules;
    return true;
}

bool Conversion::flush_output() {
    if (output_fill_ == 0) return true;
    const size_t size = output_fill_;
    output_fill_ = 0;
    if (write_(user_, output_, size) != 0) stopped_ = true;
    return !stopped_;
}

// The frame's extremes (a loop the compiler vectorises), and the wrapped samples counted one
// by one only in a frame where an extreme wraps: the products of a frame lie between those of
// its extremes, whatever the gain's sign.
void Conversion::note_levels(const int16_t* samples) {
    int16_t high = samples[0];
    int16_t low = samples[0];
    for (int i = 1; i < kAdpcmFrameSamples; ++i) {
        high = std::max(high, samples[i]);
        low = std::min(low, samples[i]);
    }
    highest_ = std::max(highest_, high);
    lowest_ = std::min(lowest_, low);
    const double gain = gain_;
    if (gain_wraps(high, gain) || gain_wraps(low, gain)) {
        for (int i = 0; i < kAdpcmFrameSamples; ++i) wrapped_ += gain_wraps(samples[i], gain);
    }
}

// The figures of the coded samples, whatever happened after the last frame.
void Conversion::finish_report() {
    kavo_report& r = report_;
    r.output_bytes = frames_coded_ * kAdpcmFrameBytes;
    r.output_seconds = static_cast<double>(r.output_bytes) / 4000.0;
    if (frames_coded_ > 0) {
        r.highest = highest_;
        r.lowest = lowest_;
    }
    r.max_gain_high = largest_gain_without_wrap(std::max(0, r.highest));
    r.max_gain_low = largest_gain_without_wrap(std::min(0, r.lowest));
    r.max_gain = std::min(r.max_gain_high, r.max_gain_low);
    r.wrapped = wrapped_;
    r.gain = gain_;
    r.gain_capped = choice_.capped ? 1 : 0;
    const SpeechLevel::Result speech = speech_.result();
    if (speech.active) {
        r.speech = 1;
        r.level = speech.level;
        r.activity = speech.activity;
        r.level_reached = level_with_gain(speech.level, gain_);
    }
}

// Codes one whole frame (the gain changes it in place) into the output, handed on when full.
bool Conversion::code_frame(int16_t* samples) {
    note_levels(samples);
    adpcm_encode_frame(adpcm_, samples, gain_, output_ + output_fill_);
    ++frames_coded_;
    output_fill_ += kAdpcmFrameBytes;
    return output_fill_ < sizeof output_ || flush_output();
}

// With a target, once the resampler is done: the gain chosen from all the samples, then the
// samples coded with it.
bool Conversion::code_held() {
    int16_t highest = 0;
    int16_t lowest = 0;
    if (!held_.empty()) {
        const auto [low, high] = std::minmax_element(held_.begin(), held_.end());
        highest = *high;
        lowest = *low;
    }
    switch (target_) {
    case KAVO_TARGET_PEAK: choice_ = peak_gain(target_db_, highest, lowest); break;
    case KAVO_TARGET_LEVEL: choice_ = level_gain(target_db_, speech_.result(), highest, lowest); break;
    default: choice_ = max_gain(highest, lowest); break;
    }
    gain_ = choice_.gain;
    for (size_t at = 0; at < held_.size(); at += kAdpcmFrameSamples) {
        if (!code_frame(held_.data() + at)) return false;
    }
    return true;
}

// The resampler's output: whole 160-sample frames are coded; a partial frame at the end is not.
int Conversion::take_output(const int16_t* samples, size_t n) {
    for (size_t i = 0; i < n;) {
        const auto count = std::min(n - i, static_cast<size_t>(kAdpcmFrameSamples - frame_fill_));
        std::memcpy(frame_ + frame_fill_, samples + i, sizeof(int16_t) * count);
        frame_fill_ += static_cast<int>(count);
        i += count;
        if (frame_fill_ < kAdpcmFrameSamples) break;
        frame_fill_ = 0;
        speech_.add(frame_, kAdpcmFrameSamples);
        if (target_ != KAVO_TARGET_NONE) {
            held_.insert(held_.end(), frame_, frame_ + kAdpcmFrameSamples);
        } else if (!code_frame(frame_)) {
            return 1;
        }
    }
    return 0;
}

int Conversion::run(char* message, size_t message_size, InputLayout* described) {
    message_ = message;
    message_size_ = message_size;
    layout_ = find_layout(input_.reader);
    if (described != nullptr) *described = layout_;
    for (const SkippedItem& item : layout_.skipped) report_.skipped_bytes += static_cast<int64_t>(item.size);
    if (input_.failed(input_.reader.context)) return fail(KAVO_ERROR_READ, "the input cannot be read");
    switch (layout_.kind) {
        case InputKind::refused:
            return fail(KAVO_ERROR_FORMAT, "%s", layout_.refusal.c_str());
        case InputKind::wav:
            return run_wav();
        case InputKind::mpeg:
            break;
    }
    return run_mpeg();
}

int Conversion::run_mpeg() {
    range_ = RangeSource{&input_.reader, layout_.begin, layout_.end, layout_.begin};
    const StreamScan scan = scan_stream(stream_);
    if (input_.failed(input_.reader.context)) return fail(KAVO_ERROR_READ, "the input cannot be read");
    if (scan.has_layer12) {
        return fail(KAVO_ERROR_FORMAT,
                    "a Layer %s frame at byte %lld: only MPEG audio Layer III is converted",
                    scan.layer12_layer == 1 ? "I" : "II",
                    static_cast<long long>(scan.layer12_offset + static_cast<int64_t>(layout_.begin)));
    }
    if (scan.layer3_frames == 0) return fail(KAVO_ERROR_FORMAT, "no MPEG audio Layer III frame in the input");

    // The counts of the file chain: N frames of the decoded file's channel count (its data
    // size and block align as the header holds them), M = N x 8000 / rate, rounded.
    channels_ = scan.last_channels;
    const auto data_size = static_cast<int32_t>(static_cast<uint32_t>(2 * scan.pcm_values));
    int64_t n_frames = data_size / (2 * channels_);
    const double factor = 8000.0 / scan.last_rate;
    const double m_frames = std::trunc(static_cast<double>(n_frames) * factor + 0.5);
    if (2 * scan.pcm_values > INT32_MAX || n_frames < 1 || !(m_frames >= 1.0)) {
        return fail(KAVO_ERROR_FORMAT, "the input is too long: %lld decoded values",
                    static_cast<long long>(scan.pcm_values));
    }
    granules_total_ = scan.pcm_frames / kGranuleSamples;
    // With the gapless cut, N counts the frames kept and M follows it.
    const bool gapless = apply_gapless(scan, n_frames);
    static constexpr int32_t kEncodings[4] = {KAVO_ENCODING_MPEG25_LAYER3, 0,
                                              KAVO_ENCODING_MPEG2_LAYER3,
                                              KAVO_ENCODING_MPEG1_LAYER3};
    report_.input_kind = KAVO_INPUT_MP3;
    report_.encoding = kEncodings[scan.last_version & 3];
    report_.sample_rate = scan.last_rate;
    report_.channels = scan.last_channels;
    report_.format_changed = scan.format_changed ? 1 : 0;
    report_.input_frames = n_frames;
    report_.input_seconds = static_cast<double>(n_frames) / scan.last_rate;
    report_.mp3_frames = scan.layer3_frames - (gapless ? 1 : 0);
    report_.gapless_applied = gapless ? 1 : 0;
    if (!(std::trunc(static_cast<double>(n_frames) * factor + 0.5) >= 1.0)) {
        // The gapless cut leaves less than one 8000 Hz sample: the output is empty.
        report(0);
        report(100);
        finish_report();
        if (message_ != nullptr && message_size_ > 0) message_[0] = '\0';
        return KAVO_OK;
    }

    range_.position = range_.begin;
    decoder_.reset(gapless);
    feed_.start(decoder_, want_decode_thread());
    return convert(factor, n_frames);
}

// WAV samples take the road the decoded values take, with the counts the mix and resample
// stages give a 16-bit WAV file of that many frames.
int Conversion::run_wav() {
    const WavInfo& wav = layout_.wav;
    if (wav.frames > static_cast<uint64_t>(INT32_MAX / 2)) {
        return fail(KAVO_ERROR_FORMAT, "the input is too long: %llu frames",
                    static_cast<unsigned long long>(wav.frames));
    }
    const auto n_frames = static_cast<int64_t>(wav.frames);
    const double factor = 8000.0 / wav.rate;
    if (n_frames < 1 || !(std::trunc(static_cast<double>(n_frames) * factor + 0.5) >= 1.0)) {
        return fail(KAVO_ERROR_FORMAT, "the input is too short to convert");
    }
    channels_ = wav.channels;
    static constexpr int32_t kEncodings[] = {KAVO_ENCODING_PCM_U8,    KAVO_ENCODING_PCM_16,
                                             KAVO_ENCODING_PCM_24,    KAVO_ENCODING_PCM_32,
                                             KAVO_ENCODING_FLOAT_32, KAVO_ENCODING_MULAW,
                                             KAVO_ENCODING_ALAW};
    report_.input_kind = KAVO_INPUT_WAV;
    report_.encoding = kEncodings[static_cast<int>(wav.encoding)];
    report_.sample_rate = wav.rate;
    report_.channels = wav.channels;
    report_.input_frames = n_frames;
    report_.input_seconds = static_cast<double>(n_frames) / wav.rate;
    granules_total_ = (n_frames + kGranuleSamples - 1) / kGranuleSamples;
    wav_ = std::make_unique<WavSamples>(input_.reader, layout_);
    feed_.start(*wav_, want_decode_thread());
    return convert(factor, n_frames);
}

int Conversion::convert(double factor, int64_t n_frames) {
    const double m_frames = std::trunc(static_cast<double>(n_frames) * factor + 0.5);
    mono_total_ = n_frames;
    adpcm_init(adpcm_);
    report(0);
    if (target_ != KAVO_TARGET_NONE) {
        held_.reserve(static_cast<size_t>(m_frames) / kAdpcmFrameSamples * kAdpcmFrameSamples);
    }

    const FilterSet filter = largeFilter();
    ResampleIo io{read_mono_io, write_io, nullptr, this, nullptr};
    const int written = convertFilteredCore(
        io, factor, static_cast<int>(n_frames), static_cast<int>(m_frames), 1, 1, filter.Coeffs,
        filter.Differences, resampleScale(filter.ScaleFactor), filter.Nmult, filter.Length);
    // Finished or not, the decode ends here: read to the input's end after a complete
    // conversion (as the decode on demand would be), stopped at once after a failure.
    if (written >= 0 && written != kResampleStopped && !stopped_) feed_.drain();
    feed_.stop();
    if (target_ != KAVO_TARGET_NONE && written >= 0 && !stopped_ &&
        !input_.failed(input_.reader.context) && !code_held()) {
        stopped_ = true;
    }
    finish_report();
    if (written == kResampleStopped || stopped_) return fail(KAVO_ERROR_STOPPED, "the write function asked to stop");
    if (written < 0) return fail(KAVO_ERROR_FORMAT, "resampling failed: %s", io.failure != nullptr ? io.failure : "");
    if (input_.failed(input_.reader.context)) return fail(KAVO_ERROR_READ, "the input cannot be read");
    if (written < 1) return fail(KAVO_ERROR_FORMAT, "the input is too short to convert");
    if (!flush_output()) return fail(KAVO_ERROR_STOPPED, "the write function asked to stop");
    report(100);
    if (message_ != nullptr && message_size_ > 0) message_[0] = '\0';
    return KAVO_OK;
}

}  // namespace

// The decode alone, as the decode phase writes its file: each granule rounded to 16 bits with
// its own frame's channel count (raw, or behind the 44-byte header that the scan can fill in at
// once), or as 24-bit hexadecimal text, one line per sample.
int run_decode(EngineInput& input, OutputForm form, kavo_write_fn write, void* user,
               char* message, size_t message_size, InputLayout* described, bool gapless) {
    auto fail = [&](int status, const std::string& text) {
        if (message != nullptr && message_size > 0) std::snprintf(message, message_size, "%s", text.c_str());
        return status;
    };
    try {
        const InputLayout layout = find_layout(input.reader);
        if (described != nullptr) *described = layout;
        if (input.failed(input.reader.context)) return fail(KAVO_ERROR_READ, "the input cannot be read");
        if (layout.kind == InputKind::refused) return fail(KAVO_ERROR_FORMAT, layout.refusal);
        if (layout.kind == InputKind::wav) {
            return fail(KAVO_ERROR_FORMAT, "a WAV file of " +
                                               std::string(wav_encoding_name(layout.wav.encoding)) +
                                               " samples: only MPEG audio is decoded");
        }
        RangeSource range{&input.reader, layout.begin, layout.end, layout.begin};
        ByteSource source = range.source();
        const StreamScan scan = scan_stream(source);
        if (input.failed(input.reader.context)) return fail(KAVO_ERROR_READ, "the input cannot be read");
        if (scan.has_layer12) {
            char text[128];
            std::snprintf(text, sizeof text,
                          "a Layer %s frame at byte %lld: only MPEG audio Layer III is converted",
                          scan.layer12_layer == 1 ? "I" : "II",
                          static_cast<long long>(scan.layer12_offset + static_cast<int64_t>(layout.begin)));
            return fail(KAVO_ERROR_FORMAT, text);
        }
        if (scan.layer3_frames == 0) return fail(KAVO_ERROR_FORMAT, "no MPEG audio Layer III frame in the input");

        std::vector<uint8_t> out;
        out.reserve(1 << 16);
        bool stopped = false;
        auto flush = [&]() {
            if (!stopped && !out.empty() && write(user, out.data(), out.size()) != 0) stopped = true;
            out.clear();
            return !stopped;
        };
        // The values written: all of them, or those the gapless cut keeps (frames of the last
        // frame's channel count, counted behind the header frame, which is not decoded).
        const GaplessPlan plan = gapless ? plan_gapless(scan) : GaplessPlan{};
        const int64_t first = plan.applies ? plan.skip_frames * scan.last_channels : 0;
        const int64_t end = plan.applies ? first + plan.keep_frames * scan.last_channels : INT64_MAX;
        int64_t index = 0;  // of the next value decoded
        if (form == OutputForm::wav) {
            uint8_t header[kWavHeaderSize];
            // The file's length as the header holds it: 32 bits, as a file stream would tell it.
            const int64_t values = plan.applies ? end - first : scan.pcm_values;
            const auto length = static_cast<uint32_t>(kWavHeaderSize + 2 * values);
            make_wav_header(header, length, scan.last_channels, scan.last_rate);
            out.insert(out.end(), header, header + kWavHeaderSize);
        }
        range.position = range.begin;
        auto decoder = std::make_unique<Decoder>(source);
        decoder->reset(plan.applies);
        int16_t values[kGranuleValues];
        for (int count; index < end && (count = decoder->next(values)) != 0; index += count) {
            const auto kept = [&](int value) { return index + value >= first && index + value < end; };
            if (form == OutputForm::text) {
                const int channels = count / kGranuleSamples;
                char line[16];
                for (int i = 0; i < kGranuleSamples; ++i) {
                    for (int ch = 0; ch < channels; ++ch) {
                        if (!kept(i * channels + ch)) continue;
                        // The text stream of the decode phase ends its lines the platform's way.
#if defined(_WIN32)
                        const int n = std::snprintf(line, sizeof line, "%06x\r\n", pcm_sample24(decoder->samples(ch)[i]));
#else
                        const int n = std::snprintf(line, sizeof line, "%06x\n", pcm_sample24(decoder->samples(ch)[i]));
#endif
                        out.insert(out.end(), line, line + n);
                    }
                }
            } else {
                for (int i = 0; i < count; ++i) {
                    if (!kept(i)) continue;
                    const auto v = static_cast<uint16_t>(values[i]);
                    out.push_back(static_cast<uint8_t>(v & 0xFFu));
                    out.push_back(static_cast<uint8_t>(v >> 8));
                }
            }
            if (out.size() >= (1u << 16) && !flush()) break;
        }
        if (!flush()) return fail(KAVO_ERROR_STOPPED, "the write function asked to stop");
        if (input.failed(input.reader.context)) return fail(KAVO_ERROR_READ, "the input cannot be read");
        return fail(KAVO_OK, "");
    } catch (const std::bad_alloc&) {
        return fail(KAVO_ERROR_MEMORY, "out of memory");
    }
}

double largest_negative_gain(const kavo_report& report) {
    return -std::min(largest_gain_without_wrap(-std::max(0, report.highest)),
                     largest_gain_without_wrap(-std::min(0, report.lowest)));
}

int run_engine(EngineInput& input, const kavo_settings& settings, kavo_write_fn write,
               kavo_progress_fn progress, void* user, kavo_report* report, char* message,
               size_t message_size, InputLayout* described) {
    kavo_report unused{};
    kavo_report& out = report != nullptr ? *report : unused;
    out = kavo_report{};
    out.size = sizeof(kavo_report);
    out.gain = settings.gain;
    try {
        auto conversion =
            std::make_unique<Conversion>(input, settings, write, progress, user, out);
        return conversion->run(message, message_size, described);
    } catch (const std::bad_alloc&) {
        if (message != nullptr && message_size > 0) {
            std::snprintf(message, message_size, "out of memory");
        }
        return KAVO_ERROR_MEMORY;
    }
}

}  // namespace kavolib
