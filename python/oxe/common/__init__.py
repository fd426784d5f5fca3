"""Shared OXE components."""
