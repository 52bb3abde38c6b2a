<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * The address of a settings server is none of "unix:/PATH", "HOST:PORT" and "[IPV6]:PORT".
 */
final class InvalidAddressException extends \InvalidArgumentException implements SettingsException
{
}
