# SPDX-License-Identifier: MIT
"""Conan 2 recipe of the library, without the command."""

import os

from conan import ConanFile
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, CMakeDeps, CMakeToolchain, cmake_layout
from conan.tools.files import copy, get, rmdir

required_conan_version = ">=2.0"


class RuneflowCoreConan(ConanFile):
    name = "runeflow-core"
    version = "0.1.0"
    description = "Capture, store and query log streams"
    license = "MIT"
    homepage = "https://example.org/runeflow-core"  # placeholder
    topics = ("log", "dlt", "logcat", "sqlite")
    package_type = "library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"shared": [True, False]}
    default_options = {"shared": False}

    def validate(self):
        check_min_cppstd(self, 23)

    def layout(self):
        cmake_layout(self, src_folder="src")

    def requirements(self):
        self.requires("sqlite3/[>=3.40 <4]")
        self.requires("icu/[>=70]")
        self.requires("nlohmann_json/[>=3.11 <4]", visible=False)
        self.requires("fmt/[>=9]")
        self.requires("spdlog/[>=1.10 <2]")

    def source(self):
        # Placeholder address. The checksum belongs to the release's archive.
        get(self, f"https://example.org/runeflow-core-{self.version}.tar.gz", strip_root=True)

    def generate(self):
        toolchain = CMakeToolchain(self)
        for option in ("RUNEFLOW_BUILD_CLI", "RUNEFLOW_BUILD_TESTS", "RUNEFLOW_BUILD_EXAMPLES"):
            toolchain.cache_variables[option] = False
        toolchain.generate()
        CMakeDeps(self).generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        copy(self, "LICENSE", self.source_folder, os.path.join(self.package_folder, "licenses"))
        for component in ("library", "dev"):
            CMake(self).install(component=component)
        # Conan writes these files itself, for the packages of its own.
        rmdir(self, os.path.join(self.package_folder, "lib", "cmake"))
        rmdir(self, os.path.join(self.package_folder, "lib", "pkgconfig"))

    def package_info(self):
        self.cpp_info.libs = ["RuneflowCore"]
        self.cpp_info.set_property("cmake_file_name", "RuneflowCore")
        self.cpp_info.set_property("cmake_target_name", "RuneflowCore::RuneflowCore")
        self.cpp_info.set_property("pkg_config_name", "runeflow-core")
        if not self.options.shared:
            self.cpp_info.defines = ["RUNEFLOW_STATIC_DEFINE"]
        if self.settings.os == "Linux":
            self.cpp_info.system_libs = ["pthread"]
