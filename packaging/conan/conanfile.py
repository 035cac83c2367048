"""A recipe for Conan 2 of the checkout that it lies in: conan create packaging/conan."""

import os
import re

from conan import ConanFile
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, CMakeDeps, CMakeToolchain, cmake_layout
from conan.tools.files import copy, load


class TolkConan(ConanFile):
    name = "tolk"
    description = "Calls between processes by method name"
    license = "MIT"
    package_type = "library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"shared": [True, False], "fPIC": [True, False]}
    default_options = {"shared": True, "fPIC": True}
    implements = ["auto_shared_fpic"]

    @property
    def _sources(self):
        return os.path.join(self.recipe_folder, "..", "..")

    def set_version(self):
        project = load(self, os.path.join(self._sources, "CMakeLists.txt"))
        self.version = re.search(r"project\(tolk VERSION ([0-9.]+)", project).group(1)

    def export_sources(self):
        for name in ("CMakeLists.txt", "LICENSE", "cmake/*", "docs/man/*", "include/*", "params/*",
                     "platform/*", "transport/*", "sessions/*", "client/*", "server/*"):
            copy(self, name, self._sources, self.export_sources_folder)

    def layout(self):
        cmake_layout(self)

    def requirements(self):
        self.requires("libuv/[>=1.44 <2]")

    def validate(self):
        check_min_cppstd(self, 20)

    def generate(self):
        CMakeDeps(self).generate()
        toolchain = CMakeToolchain(self)
        for part in ("TESTS", "TOOLS", "EXAMPLES"):
            toolchain.cache_variables[f"TOLK_{part}"] = False
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        copy(self, "LICENSE", self.source_folder, os.path.join(self.package_folder, "licenses"))
        CMake(self).install()

    def package_info(self):
        self.cpp_info.libs = ["tolk"]
        self.cpp_info.set_property("cmake_file_name", "tolk")
        self.cpp_info.set_property("cmake_target_name", "tolk::tolk")
        self.cpp_info.set_property("pkg_config_name", "tolk")
        if not self.options.shared:
            self.cpp_info.defines = ["TOLK_STATIC"]
            if self.settings.os == "Linux":
                self.cpp_info.system_libs = ["pthread"]
