"""The fuzz targets: where each one's program, corpus, dictionary and findings are."""

import os
import subprocess

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.join(ROOT, "build", "fuzz")
STORED = os.path.join(ROOT, "fuzz", "corpus")
WORK = os.path.join(ROOT, "build", "fuzz-work")

# Bytes of the longest input. Short ones run often, and hardly any rule needs a long one.
LONGEST = {
    "chunk": 160,
    "engine": 1024,
    "headers": 512,
    "plugin_conf": 512,
    "request": 320,
}
LONGEST_OF_OTHERS = 128


class Target:
    """One fuzz target."""

    def __init__(self, name):
        self.name = name
        self.program = os.path.join(BUILD, "bin", f"{name}_fuzz")
        self.corpus = os.path.join(STORED, name)
        self.regressions = os.path.join(ROOT, "fuzz", "regressions", name)
        self.dictionary = os.path.join(ROOT, "fuzz", "dictionaries", f"{name}.dict")
        self.grown = os.path.join(WORK, "corpus", name)
        self.findings = os.path.join(WORK, "findings", name)
        self.longest = LONGEST.get(name, LONGEST_OF_OTHERS)

    def stored_folders(self):
        """The folders of the tree that hold inputs of this target."""
        return [folder for folder in (self.corpus, self.regressions) if os.path.isdir(folder)]

    def make_folders(self):
        """What a run writes to lies under build/, so that the tree stays as it is."""
        os.makedirs(self.grown, exist_ok=True)
        os.makedirs(self.findings, exist_ok=True)


def all_targets():
    """One for each source in fuzz/targets."""
    suffix = "_fuzz.cpp"
    folder = os.path.join(ROOT, "fuzz", "targets")
    return [Target(name[:-len(suffix)]) for name in sorted(os.listdir(folder))
            if name.endswith(suffix)]


def size_of(folder):
    """@return (number of files, bytes) of a folder."""
    if not os.path.isdir(folder):
        return 0, 0
    sizes = [entry.stat().st_size for entry in os.scandir(folder) if entry.is_file()]
    return len(sizes), sum(sizes)


def build():
    """Installs what is missing and builds all targets."""
    subprocess.run(["scripts/install-dependencies", "--with-checks"], cwd=ROOT, check=True)
    subprocess.run(["cmake", "--preset", "fuzz"], cwd=ROOT, check=True,
                   stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", "--preset", "fuzz", "--target", "fuzz_programs", "-j",
                    str(os.cpu_count())], cwd=ROOT, check=True)
