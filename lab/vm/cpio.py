"""Archives that the kernel unpacks as its first root file system."""

import shutil
import subprocess


def pack(root, modules, image):
    """Writes the directory `root`, with these kernel modules in order, to the file `image`."""
    (root / "lib/modules").mkdir(parents=True, exist_ok=True)
    for module in modules:
        shutil.copy(module, root / "lib/modules")
    with open(image, "wb") as file:
        subprocess.run(
            "find . | cpio --quiet -o -H newc -R 0:0 | gzip -1",
            shell=True,
            cwd=root,
            check=True,
            stdout=file,
        )
