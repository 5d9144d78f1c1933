"""Merges what the runs have found into the stored corpus, and keeps that small."""

import os
import shutil
import subprocess
import tempfile

from . import campaign
from .targets import size_of

# The corpus is replayed by the ordinary tests and lies in the tree.
MOST_FILES = 200
MOST_BYTES = 100 * 1000


def smallest_first(folder):
    """Names in a folder, the shortest input first."""
    return sorted(os.listdir(folder),
                  key=lambda name: (os.path.getsize(os.path.join(folder, name)), name))


def keep_within_limits(folder):
    """Removes the largest inputs of those that are too many. @return how many."""
    total, removed = 0, 0
    for count, name in enumerate(smallest_first(folder), 1):
        path = os.path.join(folder, name)
        total += os.path.getsize(path)
        if count > MOST_FILES or total > MOST_BYTES:
            os.remove(path)
            removed += 1
    return removed


def minimise(target, report):
    """
    Replaces the stored corpus by the inputs, of those in the tree and those that runs have added,
    that together reach all that any of them reaches.
    """
    target.make_folders()
    with tempfile.TemporaryDirectory() as folder:
        command = [target.program, "-set_cover_merge=1", f"-max_len={target.longest}", folder,
                   *target.stored_folders(), target.grown]
        result = subprocess.run(command, env=campaign.environment(), check=False, text=True,
                                errors="replace", stdout=subprocess.DEVNULL,
                                stderr=subprocess.PIPE)
        if result.returncode != 0:
            report(f"{target.name}: not merged:\n{result.stderr[-2000:]}")
            return False
        left_out = keep_within_limits(folder)
        if os.path.isdir(target.corpus):
            shutil.rmtree(target.corpus)
        shutil.copytree(folder, target.corpus)
    files, size = size_of(target.corpus)
    report(f"{target.name}: {files} inputs, {size} bytes stored, {left_out} left out")
    return True
