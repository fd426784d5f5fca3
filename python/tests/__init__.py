"""Tests of the knowledge-base package."""
