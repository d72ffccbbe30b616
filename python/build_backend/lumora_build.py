"""Builds the wheel and the source archive, as PEP 517 has it, with nothing but Python.

The package is pure Python: a wheel is a zip of its files with three more beside them. So an installation
needs neither a network nor setuptools or wheel, which a fresh virtual environment lacks.
"""
import base64
import hashlib
import io
import os
import pathlib
import re
import tarfile
import time
import zipfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
PACKAGE = ROOT / "lumora"
MODULE = (PACKAGE / "__init__.py").read_text(encoding="utf-8")
VERSION = re.search(r'^__version__ = "(.+)"', MODULE, re.M).group(1)
NAME = f"lumora-{VERSION}"
# Zip archives know no earlier time. The same sources give the same archives.
TIME = max(int(os.environ.get("SOURCE_DATE_EPOCH", 0)), 315532800)

METADATA = f"""Metadata-Version: 2.1
Name: lumora
Version: {VERSION}
Summary: Find AI devices on the local network and exchange commands and data with them
License: Apache-2.0
Requires-Python: >=3.9
Classifier: License :: OSI Approved :: Apache Software License
Classifier: Operating System :: POSIX :: Linux
Classifier: Programming Language :: Python :: 3 :: Only
Classifier: Typing :: Typed
Description-Content-Type: text/markdown

{(ROOT / "README.md").read_text(encoding="utf-8")}"""
WHEEL = "Wheel-Version: 1.0\nGenerator: lumora_build\nRoot-Is-Purelib: true\nTag: py3-none-any\n"


def package_files():
    return sorted(path for path in PACKAGE.iterdir() if path.suffix == ".py" or path.name == "py.typed")


def wheel_contents():
    contents = {f"lumora/{path.name}": path.read_bytes() for path in package_files()}
    contents[f"{NAME}.dist-info/METADATA"] = METADATA.encode()
    contents[f"{NAME}.dist-info/WHEEL"] = WHEEL.encode()
    return contents


def record_of(contents, own_name):
    lines = []
    for name, data in contents.items():
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
        lines.append(f"{name},sha256={digest},{len(data)}\n")
    return "".join(lines) + f"{own_name},,\n"


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    del config_settings, metadata_directory
    contents = wheel_contents()
    record = f"{NAME}.dist-info/RECORD"
    contents[record] = record_of(contents, record).encode()
    file_name = f"{NAME}-py3-none-any.whl"
    with zipfile.ZipFile(pathlib.Path(wheel_directory) / file_name, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, data in contents.items():
            entry = zipfile.ZipInfo(name, time.gmtime(TIME)[:6])
            entry.external_attr = 0o100644 << 16
            entry.compress_type = zipfile.ZIP_DEFLATED
            archive.writestr(entry, data)
    return file_name


def build_sdist(sdist_directory, config_settings=None):
    del config_settings
    own_files = (ROOT / "pyproject.toml", ROOT / "README.md", pathlib.Path(__file__).resolve())
    contents = {str(path.relative_to(ROOT)): path.read_bytes() for path in (*own_files, *package_files())}
    contents["PKG-INFO"] = METADATA.encode()
    file_name = f"{NAME}.tar.gz"
    path = pathlib.Path(sdist_directory) / file_name
    with tarfile.open(path, "w:gz", format=tarfile.PAX_FORMAT) as archive:
        for name, data in contents.items():
            entry = tarfile.TarInfo(f"{NAME}/{name}")
            entry.size, entry.mtime, entry.mode = len(data), TIME, 0o644
            archive.addfile(entry, io.BytesIO(data))
    return file_name
