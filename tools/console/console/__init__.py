"""The console of the virtual head unit: main.py serves it on a local web page."""
