"""Signatures of senders: what is not altered verifies behind the proxy, however it came."""

import unittest

import dkim
from cryptography.hazmat.primitives import serialization
