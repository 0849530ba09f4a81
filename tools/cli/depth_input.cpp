#include "depth_input.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "cli_error.h"
#include "frame_source.h"
#include "png_io.h"

namespace quorvik::cli {

namespace fs = std::filesystem;

namespace {

std::string size_text(FrameSize s) { return std::to_string(s.width) + "x" + std::to_string(s.height); }

class PngFolder : public DepthInput {
 public:
  PngFolder(const fs::path& dir, std::vector<fs::path> files) : files_(std::move(files)) {
    count_ = static_cast<int>(files_.size());
    for (size_t i = 0; i < files_.size(); ++i) {
      const PngHeader h = read_png_header(files_[i].string());
      if (h.colourType != 0 || h.bitDepth != 16 || h.interlaced) {
        uint32_t w = 0, hh = 0;
        read_depth_png(files_[i].string(), w, hh);  // throws with the full explanation
      }
      const FrameSize s{h.width, h.height};
      if (i == 0) {
        size_ = s;
      } else if (s.width != size_.width || s.height != size_.height) {
        throw CliError(kExitInput, "mixed frame sizes: " + files_[0].filename().string() + " is " + size_text(size_) +
                                       " but " + files_[i].filename().string() + " is " + size_text(s) +
                                       "; every frame of a recording must have the same size");
      }
    }
    std::ifstream meta(dir / "recording.json");
    if (meta) {
      const nlohmann::json doc = nlohmann::json::parse(meta, nullptr, false);
      if (!doc.is_discarded() && doc.contains("camera") && doc["camera"].contains("mirrored") &&
          doc["camera"]["mirrored"].is_boolean())
        mirrored_ = doc["camera"]["mirrored"].get<bool>();
    }
    options_ = camera_options_from_json((dir / "recording.json").string());
  }

  std::vector<uint16_t> read(int index) const override {
    uint32_t w = 0, h = 0;
    std::vector<uint16_t> depth = read_depth_png(files_.at(static_cast<size_t>(index)).string(), w, h);
    if (w != size_.width || h != size_.height)
      throw CliError(kExitInput, describe(index) + " changed size while it was being read");
    return depth;
  }

  std::string describe(int index) const override { return files_.at(static_cast<size_t>(index)).string(); }

 private:
  std::vector<fs::path> files_;
};

class RawFile : public DepthInput {
 public:
  RawFile(std::string path, FrameSize size) : path_(std::move(path)) {
    size_ = size;
    std::error_code ec;
    const uintmax_t bytes = fs::file_size(path_, ec);
    if (ec) throw CliError(kExitInput, "cannot read " + path_ + ": " + ec.message());
    const uintmax_t frameBytes = uintmax_t{size.width} * size.height * 2;
    if (bytes % frameBytes != 0)
      throw CliError(kExitInput, path_ + " holds " + std::to_string(bytes) + " bytes, not a whole number of " +
                                     size_text(size) + " frames of 16-bit depth (" + std::to_string(frameBytes) +
                                     " bytes each); check --size");
    count_ = static_cast<int>(bytes / frameBytes);
  }

  std::vector<uint16_t> read(int index) const override {
    const size_t pixels = size_t{size_.width} * size_.height;
    std::vector<uint16_t> depth(pixels);
    std::ifstream in(path_, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(pixels * 2 * static_cast<size_t>(index)));
    in.read(reinterpret_cast<char*>(depth.data()), static_cast<std::streamsize>(pixels * 2));
    if (!in) throw CliError(kExitInput, "cannot read " + describe(index));
    // The file is little-endian, as are the machines this runs on.
    return depth;
  }

  std::string describe(int index) const override { return path_ + " frame " + std::to_string(index); }

 private:
  std::string path_;
};

bool has_png_extension(const fs::path& p) {
  std::string ext = p.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext == ".png";
}

}  // namespace

FrameSize parse_size(const std::string& text) {
  unsigned w = 0, h = 0;
  char tail = 0;
  if (std::sscanf(text.c_str(), "%ux%u%c", &w, &h, &tail) != 2 || w == 0 || h == 0 || w > 16384 || h > 16384)
    throw CliError(kExitUsage, "--size wants WIDTHxHEIGHT, for example 320x240, not '" + text + "'");
  return {w, h};
}

std::unique_ptr<DepthInput> open_depth_input(const std::string& path, std::optional<FrameSize> size) {
  std::error_code ec;
  const fs::path p(path);
  if (!fs::exists(p, ec))
    throw CliError(kExitInput, "no such file or folder: " + path +
                                   "; give a folder of 16-bit PNG depth frames or a .u16 file with --size WxH");
  if (is_oni_file(path)) {
#ifdef QBT_CLI_WITH_OPENNI2
    return open_oni_recording(path);
#else
    throw CliError(kExitUsage, path + " is an OpenNI2 recording, but this qbt was built without OpenNI2; install "
                                      "libopenni2-dev and build again");
#endif
  }
  if (fs::is_directory(p, ec)) {
    std::vector<fs::path> depthFiles, pngFiles;
    for (const fs::directory_entry& e : fs::directory_iterator(p, ec)) {
      if (!e.is_regular_file() || !has_png_extension(e.path())) continue;
      pngFiles.push_back(e.path());
      if (e.path().filename().string().rfind("depth_", 0) == 0) depthFiles.push_back(e.path());
    }
    if (ec) throw CliError(kExitInput, "cannot list " + path + ": " + ec.message());
    std::vector<fs::path>& files = depthFiles.empty() ? pngFiles : depthFiles;
    if (files.empty())
      throw CliError(kExitInput, "no PNG files in " + path + "; a recording is a folder of 16-bit PNG depth frames");
    std::sort(files.begin(), files.end());
    return std::make_unique<PngFolder>(p, std::move(files));
  }
  if (!size)
    throw CliError(kExitUsage, path + " is not a folder; a raw file of 16-bit frames needs their size: --size WxH");
  return std::make_unique<RawFile>(path, *size);
}

}  // namespace quorvik::cli
