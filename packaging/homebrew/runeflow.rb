# SPDX-License-Identifier: MIT

# Homebrew formula of the command and the library. The address and the checksum are placeholders.
class Runeflow < Formula
  desc "Capture and search DLT and Android logs"
  homepage "https://example.org/runeflow-core"
  url "https://example.org/runeflow-core-0.1.0.tar.gz"
  sha256 "0000000000000000000000000000000000000000000000000000000000000000"
  license "MIT"

  depends_on "cli11" => :build
  depends_on "cmake" => :build
  depends_on "ninja" => :build
  depends_on "nlohmann-json" => :build
  depends_on "pkgconf" => [:build, :test]
  depends_on "curl"
  depends_on "fmt"
  depends_on "icu4c@78"
  depends_on "libmicrohttpd"
  depends_on "mimalloc"
  depends_on "re2"
  depends_on "spdlog"
  depends_on "sqlite" # built with FTS5; the system's is older on some releases
  depends_on "zlib"

  def install
    args = %w[
      -DBUILD_SHARED_LIBS=ON
      -DRUNEFLOW_BUILD_TESTS=OFF
      -DRUNEFLOW_BUILD_EXAMPLES=OFF
    ]
    system "cmake", "-S", ".", "-B", "build", "-G", "Ninja", *args, *std_cmake_args
    system "cmake", "--build", "build"
    system "cmake", "--install", "build"
  end

  test do
    (testpath/"phone.log").write "03-17 16:13:38.811  1702  2395 D PowerManager: wake lock acquired\n"
    system bin/"runeflow", "capture", "phone.log", "--db", "phone.db"
    assert_match "wake lock", shell_output("#{bin}/runeflow query phone.db lock")
    assert_match version.to_s, shell_output("pkgconf --modversion runeflow-core")
  end
end
