"""Figures of the standard responder; ./bench/standard/run measures them."""
