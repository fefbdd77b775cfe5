// Seals a synthetic meeting end to end (render, analyse, encode, hash, manifest, install) and
// prints each stage's time and the peak memory. Default: one hour of two tracks.
//
//   tamsel_bench_meeting_seal [SECONDS] [--keep]
//
// The tracks are speech-like (syllable-rate bursts of a gliding tone over low noise) so the
// encoder works as hard as on a real meeting; the system track starts 0.25 s late and its clock
// runs 20 ppm fast, so the drift resampler runs too. They are written by a child process, so
// the peak memory printed is the seal's alone.
#include <sndfile.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/sealing/audio_artifact_sealer.hpp"

namespace fs = std::filesystem;
using namespace tamsel;

namespace {

constexpr int kRate = 48000;

void writeTrack(const fs::path& path, std::int64_t frames, double baseHz, unsigned seed) {
  SF_INFO info{};
  info.samplerate = kRate;
  info.channels = 1;
  info.format = SF_FORMAT_CAF | SF_FORMAT_FLOAT;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!file) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(1);
  }
  std::mt19937 random(seed);
  std::normal_distribution<float> noise(0.0f, 0.01f);
  std::vector<float> block(kRate);
  double phase = 0;
  for (std::int64_t at = 0; at < frames; at += kRate) {
    const auto n = static_cast<std::int64_t>(std::min<std::int64_t>(kRate, frames - at));
    for (std::int64_t i = 0; i < n; ++i) {
      const double t = static_cast<double>(at + i) / kRate;
      const double syllable = std::max(0.0, std::sin(2 * M_PI * 4.0 * t));  // 4 Hz bursts
      const double pause = std::fmod(t, 7.0) < 5.5 ? 1.0 : 0.0;             // sentences
      const double hz = baseHz * (1.0 + 0.3 * std::sin(2 * M_PI * 0.7 * t));
      phase += 2 * M_PI * hz / kRate;
      block[static_cast<std::size_t>(i)] =
          static_cast<float>(0.3 * syllable * pause *
                             (std::sin(phase) + 0.3 * std::sin(3 * phase))) +
          noise(random);
    }
    sf_writef_float(file, block.data(), n);
  }
  sf_close(file);
}

void writeJournal(const fs::path& path, const char* source, std::int64_t frames,
                  std::uint64_t firstHost, double ppm) {
  // The host clock says the track lasted frames / (1 + ppm) samples' worth of time.
  const double seconds = static_cast<double>(frames) / kRate / (1.0 + ppm * 1e-6);
  boost::json::object clock{{"source", source},
                            {"sampleRate", kRate},
                            {"totalFrames", frames},
                            {"firstHostTime", firstHost},
                            {"lastHostTime", firstHost + static_cast<std::uint64_t>(seconds * 1e9)},
                            {"firstSampleTime", 0},
                            {"lastSampleTime", frames},
                            {"droppedFrames", 0}};
  boost::json::object journal{{"raw_file", std::string(source) + ".caf"},
                              {"clock", clock},
                              {"gaps", boost::json::array{}},
                              {"frames_written", frames},
                              {"finished", true},
                              {"usable", true}};
  base::writeFileAtomically(path, base::json::serialize(journal));
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

long peakRSSKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 3600;
  bool keep = false;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--keep")
      keep = true;
    else
      seconds = std::atof(argv[i]);
  }
  if (seconds <= 0) {
    std::fprintf(stderr, "usage: %s [SECONDS] [--keep]\n", argv[0]);
    return 2;
  }
  char pattern[] = "/tmp/tamsel-seal-bench-XXXXXX";
  const fs::path folder = ::mkdtemp(pattern);
  const auto frames = static_cast<std::int64_t>(seconds * kRate);
  const auto generated = std::chrono::steady_clock::now();
  const pid_t child = ::fork();
  if (child == 0) {
    writeTrack(folder / "mic.caf", frames, 220, 1);
    writeTrack(folder / "system.caf", frames, 150, 2);
    writeJournal(folder / "mic.journal.json", "mic", frames, 1'000'000'000ULL, 0.0);
    writeJournal(folder / "system.journal.json", "system", frames, 1'250'000'000ULL, 20.0);
    std::_Exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return 1;
  // A real meeting's tracks were written over its whole length and are long on disk; the seal
  // should not pay for writing back the gigabyte the generator just left dirty.
  ::sync();
  std::printf("meeting of %.0f s, two tracks written in %.1f s into %s\n", seconds,
              std::chrono::duration<double>(std::chrono::steady_clock::now() - generated).count(),
              folder.c_str());

  sealing::AudioArtifactSealer sealer;
  sealing::SealingTimings t;
  int exitCode = 0;
  double loadBefore[1] = {0};
  ::getloadavg(loadBefore, 1);
  try {
    const double cpuBefore = cpuSeconds();
    const auto out = sealer.seal(folder, {}, nullptr, &t);
    const double cpu = cpuSeconds() - cpuBefore;
    std::printf("plan      %7.2f s\n", t.plan);
    std::printf("render    %7.2f s  (with the signal analysis; runs beside the encoder)\n",
                t.render);
    std::printf("encode    %7.2f s  (%d workers, segments of %.0f s, coder %s)\n", t.encode,
                sealer.encoder().options().workers,
                static_cast<double>(sealer.encoder().options().segmentFrames) / kRate,
                sealer.encoder().options().coder.c_str());
    std::printf("hash      %7.3f s\n", t.hash);
    std::printf("manifest+install %6.3f s\n", t.manifestAndInstall);
    std::printf("total     %7.2f s  = %.0fx real time (target: at most 12 s for an hour)\n",
                t.total, seconds / t.total);
    // The machine may be shared: the CPU time says what two idle cores would take.
    std::printf("cpu       %7.2f s  (user + system, all threads; load average %.1f before)\n", cpu,
                loadBefore[0]);
    std::printf("artifact  %.1f MB, %.3f s, drift resampled: %s\n",
                static_cast<double>(fs::file_size(out.artifact.combinedFileURL)) / 1e6,
                out.artifact.manifest.combinedDuration,
                out.artifact.manifest.driftCorrection.resampleApplied ? "yes" : "no");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "seal failed: %s\n", e.what());
    exitCode = 1;
  }
  std::printf("peak RSS  %.1f MB\n", static_cast<double>(peakRSSKiB()) / 1024.0);
  if (!keep) fs::remove_all(folder);
  return exitCode;
}
