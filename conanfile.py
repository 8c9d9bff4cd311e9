"""The C++ library as a Conan package; docs/packaging.md says how to make and test it."""

import os

from conan import ConanFile
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, CMakeToolchain, cmake_layout
from conan.tools.files import copy, load


class DecisionBounds(ConanFile):
    name = "decision_bounds"
    description = "Bounds on what a client of a paid decision endpoint spends"
    license = "Apache-2.0"
    package_type = "library"
    settings = "os", "compiler", "build_type", "arch"
    options = {"shared": [True, False]}
    default_options = {"shared": False}
    exports = "include/decision_bounds/version.hpp"
    exports_sources = "CMakeLists.txt", "cmake/*", "include/*", "src/*", "LICENSE"
    test_package_folder = "tests/package"

    def set_version(self):
        header = load(self, os.path.join(self.recipe_folder, self.exports))
        self.version = header.split('DECISION_BOUNDS_VERSION "')[1].split('"')[0]

    def layout(self):
        cmake_layout(self)

    def validate(self):
        check_min_cppstd(self, 20)

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["DECISION_BOUNDS_MODULE"] = False
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        copy(self, "LICENSE", self.source_folder, os.path.join(self.package_folder, "licenses"))
        CMake(self).install()

    def package_info(self):
        self.cpp_info.libs = ["decision_bounds"]
        if self.options.shared:
            self.cpp_info.defines = ["DECISION_BOUNDS_SHARED"]
        if self.settings.os in ("Linux", "FreeBSD"):
            self.cpp_info.system_libs = ["pthread"]
