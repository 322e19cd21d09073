"""scripts/sandbox as a module: it alone knows how a private root is made."""

import importlib.machinery
import importlib.util
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]


def _load():
    loader = importlib.machinery.SourceFileLoader("private_root_script", str(REPOSITORY / "scripts" / "sandbox"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


script = _load()
