<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * The settings server could not be reached, or the connection to it was lost. The next call connects again.
 */
class ConnectionException extends \RuntimeException implements SettingsException
{
}
