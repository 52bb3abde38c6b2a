<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * A group name cannot be in a list: it holds a line feed, or is the single character ".". Nothing was sent.
 */
final class InvalidNameException extends \InvalidArgumentException implements SettingsException
{
}
