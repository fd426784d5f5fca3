"""Helpers of the repository manager."""
