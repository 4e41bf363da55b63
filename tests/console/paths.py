"""Where the console and what it uses are found."""
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools" / name) for name in ("headunit", "records", "console")]
