"""The Python classes of the agent's messages and services.

An installed vornctl has them beside it. Another one makes them from the repository's .proto files on first use, and
keeps them in a cache folder named after what they were made from, so that a changed file or another version of gRPC
gets stubs of its own.

usage, for the package: stubs.py FOLDER makes them, and a file "version", in a new folder
"""

import importlib
import importlib.util
import os
import re
import sys
from types import SimpleNamespace

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
INSTALLED = os.path.join(ROOT, "stubs")
PROTOS = (
    "VornSdkRpcProtos/VornSdkRpc.proto",
    "agents/routing/RoutingAgent.proto",
    "agents/routing/PolicyService.proto",
)


class StubError(Exception):
    """The stubs can't be made or loaded; one line for the user."""


def load() -> SimpleNamespace:
    """The stub modules: sdk (the SDK's messages), agent (the agent's), rpc (its services), and both of the policy."""
    try:
        folder = INSTALLED if os.path.isdir(INSTALLED) else _made()
        sys.path.insert(0, folder)
        return SimpleNamespace(
            sdk=importlib.import_module("VornSdkRpcProtos.VornSdkRpc_pb2"),
            agent=importlib.import_module("agents.routing.RoutingAgent_pb2"),
            rpc=importlib.import_module("agents.routing.RoutingAgent_pb2_grpc"),
            policy=importlib.import_module("agents.routing.PolicyService_pb2"),
            policy_rpc=importlib.import_module("agents.routing.PolicyService_pb2_grpc"),
        )
    except OSError as error:
        raise StubError(f"the stubs can't be made: {error.strerror}: {error.filename}") from error
    except RuntimeError as error:
        raise StubError(f"no place for the stubs: {error} Set XDG_CACHE_HOME.") from error
    except (ImportError, TypeError) as error:  # protobuf answers stubs of another version with TypeError
        raise StubError(f"the stubs in {folder} can't be loaded: {error}") from error


def version() -> str:
    """The version of the project that this client belongs to."""
    if os.path.isdir(INSTALLED):
        return _text(INSTALLED, "version").strip()
    found = re.search(r"project\(VornSdkRpc VERSION ([\d.]+)", _text(ROOT, "CMakeLists.txt"))
    return found[1] if found else "unknown"


def _text(folder: str, name: str) -> str:
    with open(os.path.join(folder, name), encoding="utf-8") as file:
        return file.read()


def _made() -> str:
    """The cache folder with the stubs, which are made when they are not there. Imports what an installed vornctl does
    without: its start is to take no time."""
    folder = _folder()
    if not os.path.isdir(folder):
        _generate(folder)
    return folder


def _folder() -> str:
    import hashlib
    import pathlib

    import google.protobuf
    import grpc

    made_from = hashlib.sha256(f"{grpc.__version__} {google.protobuf.__version__}".encode())
    for proto in PROTOS:
        content = pathlib.Path(ROOT, proto).read_bytes()
        made_from.update(f" {proto} {len(content)} ".encode() + content)
    cache = pathlib.Path(os.environ.get("XDG_CACHE_HOME", ""))
    if not cache.is_absolute():
        cache = pathlib.Path.home() / ".cache"
    return str(cache / "vornctl" / made_from.hexdigest()[:32])


def _generate(place: str) -> None:
    """Makes the stubs beside their folder, then moves them there at once: whoever looks at the same time
    finds nothing or all of it, and of two that make them one moves first."""
    import pathlib
    import subprocess
    import tempfile

    folder = pathlib.Path(place)
    folder.parent.mkdir(mode=0o700, parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix="making-", dir=folder.parent) as scratch:
        made = pathlib.Path(scratch, "stubs")
        made.mkdir()
        outcome = subprocess.run(
            [*_protoc(), f"-I{ROOT}", f"--python_out={made}", f"--grpc_python_out={made}", *PROTOS],
            cwd=ROOT,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            check=False,
        )
        if outcome.returncode != 0:
            reason = " ".join((outcome.stderr or outcome.stdout).split())
            raise StubError(f"protoc failed with exit code {outcome.returncode}: {reason}")
        # Real packages, so that no other package named "agents" is found instead of this one.
        for package in (made / "VornSdkRpcProtos", made / "agents", made / "agents/routing"):
            (package / "__init__.py").touch()
        try:
            made.rename(folder)
        except OSError:
            if not folder.is_dir():
                raise


def _protoc() -> list[str]:
    import shutil

    protoc, plugin = shutil.which("protoc"), shutil.which("grpc_python_plugin")
    if protoc and plugin:
        return [protoc, f"--plugin=protoc-gen-grpc_python={plugin}"]
    if importlib.util.find_spec("grpc_tools"):
        return [sys.executable, "-m", "grpc_tools.protoc"]
    missing = " and ".join(name for name, found in (("protoc", protoc), ("grpc_python_plugin", plugin)) if not found)
    raise StubError(
        f"{missing} not found, which the first use needs:" " apt-get install protobuf-compiler protobuf-compiler-grpc"
    )


if __name__ == "__main__":
    _generate(sys.argv[1])
    with open(os.path.join(sys.argv[1], "version"), "w", encoding="utf-8") as told:
        told.write(version() + "\n")
