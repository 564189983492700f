"""Debian's packages for any CPU, downloaded and unpacked without touching this system's own."""

import re
import shutil
import subprocess

RELEASE = "bookworm"
_KEYRING = "/usr/share/keyrings/debian-archive-keyring.gpg"


def mirror():
    """The mirror that this machine uses."""
    shown = subprocess.run(
        ["apt-get", "indextargets", "--format", "$(REPO_URI) $(RELEASE)", "Created-By: Packages"],
        capture_output=True,
        text=True,
        check=True,
    )
    for line in shown.stdout.splitlines():
        address, release = line.split()
        if release == RELEASE:
            return address
    raise RuntimeError(f"this machine's apt knows of no Debian {RELEASE}")


class Archive:
    """apt with folders of its own, for one CPU ("amd64", "armhf", "mipsel")."""

    def __init__(self, directory, architecture):
        self._directory = directory
        self._architecture = architecture
        for folder in ("state/lists/partial", "cache/archives/partial"):
            (directory / folder).mkdir(parents=True, exist_ok=True)
        (directory / "state/status").touch()
        (directory / "sources.list").write_text(
            f"deb [signed-by={_KEYRING}] {mirror()} {RELEASE} main\n"
        )
        self._updated = False

    def _apt(self, tool, *words, into=None):
        own = {
            "Dir::State": self._directory / "state",
            "Dir::State::status": self._directory / "state/status",
            "Dir::Cache": self._directory / "cache",
            "Dir::Etc::sourcelist": self._directory / "sources.list",
            "Dir::Etc::sourceparts": "-",
            "APT::Architecture": self._architecture,
            "APT::Architectures::": self._architecture,
            "APT::Sandbox::User": "root",
        }
        options = [f"-o{name}={value}" for name, value in own.items()]
        done = subprocess.run(
            [tool, "-q", *options, *words],
            cwd=into or self._directory,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
        )
        if done.returncode != 0:
            raise RuntimeError(f"{tool} {words}: {done.stderr}")
        return done.stdout

    def kernel(self, flavour):
        """The name of the package that holds the present kernel of this flavour."""
        self._update()
        shown = self._apt("apt-cache", "depends", "--important", f"linux-image-{flavour}")
        return re.search(r"Depends: (linux-image-\S+)", shown)[1]

    def _update(self):
        if not self._updated:
            self._apt("apt-get", "update")
            self._updated = True

    def unpack(self, package, target):
        """Unpacks a package into the directory `target` without running any of it."""
        self._update()
        download = self._directory / "download"
        shutil.rmtree(download, ignore_errors=True)
        download.mkdir()
        self._apt("apt-get", "download", package, into=download)
        (found,) = download.glob("*.deb")
        subprocess.run(["dpkg-deb", "-x", found, target], check=True)
        shutil.rmtree(download)
