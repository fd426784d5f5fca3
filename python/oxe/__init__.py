"""Top-level namespace of the OXE Python packages."""
