<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * What all exceptions of this package are: catch it to catch every failure.
 */
interface SettingsException extends \Throwable
{
}
